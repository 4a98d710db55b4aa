// The way from the threads of cameras to the framework's event loop.
#pragma once
#include <functional>

namespace kovindi {

void StartMainThreadQueue();                    // on the main thread, before the others
void OnMainThread(std::function<void()> work);  // from any thread; in the order of the calls

}  // namespace kovindi
