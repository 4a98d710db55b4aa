#include "kovcam/serve/Http.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "common/Text.h"

namespace kovserve {

using kovtools::Lower;

namespace {

std::string Decoded(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+') {
            out += ' ';
        } else if (text[i] != '%') {
            out += text[i];
        } else {
            const auto digit = [&](size_t at) -> int {
                if (at >= text.size() || std::isxdigit(static_cast<unsigned char>(text[at])) == 0)
                    throw BadRequest("a % in the form is not followed by two hexadecimal digits");
                const char c = text[at];
                return c <= '9' ? c - '0' : (c | 32) - 'a' + 10;
            };
            out += static_cast<char>(digit(i + 1) * 16 + digit(i + 2));
            i += 2;
        }
    }
    return out;
}

}  // namespace

std::multimap<std::string, std::string> ParseForm(const std::string& body)
{
    std::multimap<std::string, std::string> out;
    std::string_view rest = body;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('&'), rest.size());
        const std::string_view field = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        const size_t equals = std::min(field.find('='), field.size());
        if (!field.empty())
            out.emplace(Decoded(field.substr(0, equals)), Decoded(field.substr(std::min(equals + 1, field.size()))));
    }
    return out;
}

std::string HostName()
{
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    return name;
}

bool IsOwn(const std::string& host, const std::string& origin, const std::string& named)
{
    if (host.empty())
        return origin.empty();
    std::string name = Lower(host);
    if (name.front() == '[') {
        name = name.substr(1, name.find(']') - 1);
    } else if (const size_t colon = name.rfind(':'); colon != std::string::npos) {
        name.resize(colon);
    }
    in6_addr six{};
    in_addr four{};
    const std::string own = Lower(HostName());
    const bool known = name == "localhost" || inet_pton(AF_INET, name.c_str(), &four) == 1 ||
                       inet_pton(AF_INET6, name.c_str(), &six) == 1 || name == own || name == own + ".local" ||
                       (!named.empty() && name == Lower(named));
    return known && (origin.empty() || Lower(origin) == "http://" + Lower(host));
}

}  // namespace kovserve
