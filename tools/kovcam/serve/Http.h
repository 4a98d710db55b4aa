// Small things that the server's routes share.
#pragma once
#include <map>
#include <stdexcept>
#include <string>

namespace kovserve {

// A request that cannot be understood: answered with 400 and this text, and nothing else happens.
class BadRequest : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The fields of an application/x-www-form-urlencoded body. Throws BadRequest.
std::multimap<std::string, std::string> ParseForm(const std::string& body);
std::string HostName();

// Whether a request may steer cameras. A browser that has been led here by another page tells so by Origin; a page
// whose own name was made to point here tells that name by Host. An address, localhost and this machine's names are
// no page's. `host` and `origin` are the headers, empty when absent; `named` is a further name that was allowed.
bool IsOwn(const std::string& host, const std::string& origin, const std::string& named);

}  // namespace kovserve
