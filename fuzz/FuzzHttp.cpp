// What the server makes of a request by itself: form bodies, and the headers that decide who may steer. Lines: named host, Host,
// Origin, body.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "tools/kovcam/serve/Http.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string rest(reinterpret_cast<const char*>(data), size);
    const auto line = [&] {
        const size_t end = std::min(rest.find('\n'), rest.size());
        const std::string s = rest.substr(0, end);
        rest.erase(0, end + 1);
        return s;
    };
    const std::string named = line(), host = line(), origin = line();
    if (kovserve::IsOwn(host, origin, named) && !origin.empty() && origin.size() != host.size() + 7)  // http:// and the host
        std::abort();
    try {
        for (const auto& [name, value] : kovserve::ParseForm(rest))
            if (name.size() + value.size() > rest.size())  // decoding never makes more of it
                std::abort();
    } catch (const kovserve::BadRequest&) {
    }
    return 0;
}
