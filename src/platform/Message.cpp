#include <atomic>

#include "platform/Platform.h"

namespace platform {

static std::atomic<void (*)(const char*, const char*)> g_Sink = nullptr;

void SetMessageSink(void (*sink)(const char*, const char*)) { g_Sink = sink; }

void ShowMessage(const char* text, const char* title)
{
    const auto sink = g_Sink.load();
    (sink ? sink : &ShowNativeMessage)(text, title);
}

}  // namespace platform
