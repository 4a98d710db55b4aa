#include "kovcam/serve/CameraClass.h"

#include <fmt/format.h>

#include "camera/CCameraBase.h"
#include "common/Files.h"
#include "kovcam/serve/Frame.h"

namespace kovserve {

namespace fs = std::filesystem;

CCameraBase* ObjectOf(int id) { return CCameraBase::FromID(id); }

bool Answers(CCameraBase& camera)
{
    uint8_t version[2] = {};
    int32_t length = sizeof(version);
    return camera.SendCMD(REQ_FIRMWARE_VERSION, 0, 0, true, version, &length);
}

void LetGo(CCameraBase& camera)
{
    try {
        camera.StopCapture();
        camera.CloseCamera();
    } catch (const char*) {
        // the driver does not let go; the object's end tries once more
    }
}

void DarkState(int id, int* hotPixels, bool* hotPixelsOn)
{
    int inDark = 0;
    CCameraBase::FromID(id)->GetHPSum(&inDark, hotPixels);
    *hotPixelsOn = CCameraBase::FromID(id)->IsHPCEnable();
}

void BeginDark(int id) { CCameraBase::FromID(id)->GettingDark(true, 0); }

bool IsCollecting(int id, int* done, int* frames)
{
    CCameraBase& camera = *CCameraBase::FromID(id);
    camera.GetDarkCount(done, frames);
    return camera.IsGetDarkOver();  // true as long as it collects
}

void DropDark(int id) { CCameraBase::FromID(id)->GettingDark(false, 0); }

std::string SaveDark(int id, const fs::path& path)
{
    CCameraBase& camera = *CCameraBase::FromID(id);
    kovtools::WholeFile whole(kovtools::TextOf(path));
    camera.SaveBMPToFile(whole.Temporary().c_str());  // tells success in any case
    std::error_code ec;
    const auto pixels = static_cast<uintmax_t>(camera.m_iMaxWidth) * static_cast<uintmax_t>(camera.m_iMaxHeight);
    if (fs::file_size(kovtools::PathOf(whole.Temporary()), ec) < pixels || ec)
        throw CommandError(
            fmt::format("cannot write {}: is the folder writable, and the disk not full?", kovtools::TextOf(path)));
    whole.Commit();
    int inDark = 0, inTable = 0;
    camera.GetHPSum(&inDark, &inTable);
    return fmt::format("dark frame, {} pixels stand out", inDark);
}

void ChangeHotPixels(int id, const std::string& what)
{
    CCameraBase& camera = *CCameraBase::FromID(id);
    unsigned long count = 0;
    int ignored = 0;
    if (what == "off") {
        camera.ChangeHPCStatus(HPC_OFF, nullptr);
        return;
    }
    if (what == "save" && !camera.ManualHPC(true, &ignored))
        throw CommandError("the table could not be saved in the camera's flash. Use a dark frame first");
    if (!camera.ChangeHPCStatus(HPC_LOAD, &count))
        throw CommandError("the camera holds no table. Use a dark frame, then save its hot pixels");
}

}  // namespace kovserve
