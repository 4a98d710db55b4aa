#include "kovcam/Run.h"

int main(int argc, char** argv)
{
#ifdef KOV_SERVES
    return kovcam::Run(argc, argv, kovserve::Serve);
#else
    return kovcam::Run(argc, argv, nullptr);
#endif
}
