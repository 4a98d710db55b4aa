// Dark frames and hot pixels, as far as only the camera class reaches them. `id` is that of an open camera.
#pragma once
#include <filesystem>
#include <string>

namespace kovserve {

void DarkState(int id, int* hotPixels, bool* hotPixelsOn);
void BeginDark(int id);  // the frames that are fetched from now on are collected
// false once it is whole. *done of *frames are in.
bool IsCollecting(int id, int* done, int* frames);
void DropDark(int id);
// Writes what was collected; the return value tells what stands out. Throws CommandError.
std::string SaveDark(int id, const std::filesystem::path& path);
void ChangeHotPixels(int id, const std::string& what);  // "load", "off", "save"; throws CommandError

}  // namespace kovserve
