#include "kovcam/Run.h"

int main(int argc, char** argv)
{
#ifdef KOV_SERVES
    return kovcam::Run(argc, argv, kovcam::AddServeCommand);
#else
    return kovcam::Run(argc, argv, nullptr);
#endif
}
