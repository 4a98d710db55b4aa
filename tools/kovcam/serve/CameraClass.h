// What the public functions do not offer: a sign of life, dark frames and hot pixels. The only way from here to the camera
// class. `id` is that of an open camera; the gate is the caller's.
#pragma once
#include <filesystem>
#include <string>

class CCameraBase;

namespace kovserve {

CCameraBase* ObjectOf(int id);
// Whether the camera still answers on its bus, whatever it is doing.
bool Answers(CCameraBase& camera);
// Lets go of a camera whose ID was taken away by a look at a bus with fewer cameras; the object itself stays where it is.
void LetGo(CCameraBase& camera);

void DarkState(int id, int* hotPixels, bool* hotPixelsOn);
void BeginDark(int id);  // the frames that are fetched from now on are collected
// false once it is whole. *done of *frames are in.
bool IsCollecting(int id, int* done, int* frames);
void DropDark(int id);
// Writes what was collected; the return value tells what stands out. Throws CommandError.
std::string SaveDark(int id, const std::filesystem::path& path);
void ChangeHotPixels(int id, const std::string& what);  // "load", "off", "save"; throws CommandError

}  // namespace kovserve
