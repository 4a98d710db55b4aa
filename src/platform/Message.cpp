#include <atomic>

#include "platform/Platform.h"

namespace platform {

static std::atomic<void (*)(const char*, const char*)> g_pSink = nullptr;

void SetMessageSink(void (*pSink)(const char*, const char*)) { g_pSink = pSink; }

void ShowMessage(const char* szText, const char* szTitle)
{
    const auto pSink = g_pSink.load();
    (pSink ? pSink : &ShowNativeMessage)(szText, szTitle);
}

}  // namespace platform
