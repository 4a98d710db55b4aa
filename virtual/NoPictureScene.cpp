// Where libpng is not to be had.
#include "virtual/Scene.h"

namespace kovsim {

std::shared_ptr<const Scene> Scene::Picture(const std::string& path, float, std::string* error)
{
    if (error)
        *error = path + ": this build cannot read pictures";
    return nullptr;
}

}  // namespace kovsim
