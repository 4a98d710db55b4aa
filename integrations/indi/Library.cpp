#include "Library.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace kovindi {

namespace {

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error("the camera library cannot be loaded once more: " + what + ". Restart the driver");
}

// The file of the library that this program is linked with.
std::string FindFile()
{
    Dl_info facts{};
    if (dladdr(reinterpret_cast<void*>(&KOVGetNumOfConnectedCameras), &facts) == 0)
        Fail("its file is not known");
    return facts.dli_fname;
}

// The loader tells files apart by name and inode: a copy in memory has an inode of its own, and a name for as long as
// its descriptor stays open, which is for ever.
std::string CopyInMemory(const std::string& path)
{
    const int from = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const int to = memfd_create("KOVCamera2", MFD_CLOEXEC);
    struct stat facts {};
    if (from < 0 || to < 0 || fstat(from, &facts) != 0)
        Fail("no copy of " + path + " can be made");
    for (off_t done = 0; done < facts.st_size;)
        if (sendfile(to, from, &done, static_cast<size_t>(facts.st_size - done)) <= 0)
            Fail("no copy of " + path + " can be made");
    close(from);
    return "/proc/self/fd/" + std::to_string(to);
}

template <class Function>
void Bind(void* handle, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(dlsym(handle, name));
    if (function == nullptr)
        Fail(std::string("it has no ") + name);
}

std::unique_ptr<Library> Load()
{
    static const auto* const path = new std::string(FindFile());
    // The library is linked so that it calls itself and not the one that this program is linked with.
    void* handle = dlopen(CopyInMemory(*path).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
        Fail(dlerror());
    auto library = std::make_unique<Library>();
#define KOV_BIND(name) Bind(handle, "KOV" #name, library->name)
    KOV_BIND(GetNumOfConnectedCameras);
    KOV_BIND(GetCameraProperty);
    KOV_BIND(OpenCamera);
    KOV_BIND(CloseCamera);
    KOV_BIND(GetNumOfControls);
    KOV_BIND(GetControlCaps);
    KOV_BIND(GetControlValue);
    KOV_BIND(SetControlValue);
    KOV_BIND(SetROIFormat);
    KOV_BIND(GetROIFormat);
    KOV_BIND(SetStartPos);
    KOV_BIND(GetStartPos);
    KOV_BIND(GetDroppedFrames);
    KOV_BIND(EnableDarkSubtract);
    KOV_BIND(DisableDarkSubtract);
    KOV_BIND(StartVideoCapture);
    KOV_BIND(StopVideoCapture);
    KOV_BIND(GetVideoData);
    KOV_BIND(StartExposure);
    KOV_BIND(StopExposure);
    KOV_BIND(GetExpStatus);
    KOV_BIND(GetDataAfterExp);
    KOV_BIND(PulseGuideOn);
    KOV_BIND(PulseGuideOff);
    KOV_BIND(GetID);
#undef KOV_BIND
    return library;
}

// Copies are never unloaded: a thread of the library may be about to end in its code.
struct Shelf {
    std::mutex mutex;
    std::vector<std::unique_ptr<Library>> idle;
};

Shelf& TheShelf()
{
    static auto* shelf = new Shelf;  // outlives the threads that put copies back
    return *shelf;
}

}  // namespace

std::shared_ptr<const Library> BorrowLibrary()
{
    Shelf& shelf = TheShelf();
    const std::lock_guard lock(shelf.mutex);
    std::unique_ptr<Library> library;
    if (shelf.idle.empty()) {
        library = Load();
    } else {
        library = std::move(shelf.idle.back());
        shelf.idle.pop_back();
    }
    return { library.release(), [](const Library* returned) {
                Shelf& home = TheShelf();
                const std::lock_guard back(home.mutex);
                home.idle.emplace_back(const_cast<Library*>(returned));
            } };
}

}  // namespace kovindi
