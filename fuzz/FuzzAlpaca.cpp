// The parameters of Alpaca, as the form of a PUT or the query of a GET: a first byte that says which, then name=value&... A
// getter gives what the text says, or refuses it.
#include <cmath>
#include <cstdlib>
#include <string>

#include "kovcam/serve/Http.h"
#include "kovcam/serve/Parameters.h"

using kovserve::Parameters;

// False: refused.
template <class Get>
static bool Answers(Get get)
{
    try {
        get();
        return true;
    } catch (const kovserve::BadRequest&) {
        return false;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    Parameters p;
    if (!Answers([&] { p = data[0] & 1 ? Parameters::OfForm(text) : Parameters::OfQuery(kovserve::ParseForm(text)); }))
        return 0;
    for (const char* const name : { "ClientID", "Duration", "Light", "a" }) {
        const std::string* const s = p.Find(name);
        double number = 0;
        int32_t integer = 0;
        uint32_t id = 0;
        bool flag = false, present = false;
        const bool isNumber = Answers([&] { number = p.Number(name); }), isInteger = Answers([&] { integer = p.Integer(name); });
        const bool isFlag = Answers([&] { flag = p.Bool(name); }), isId = Answers([&] { id = p.Id(name, &present); });
        if (s == nullptr) {
            if (isNumber || isInteger || isFlag || !isId || id != 0 || present)
                std::abort();
            continue;
        }
        const bool right = present && (!isNumber || std::isfinite(number)) &&
                           (!isInteger || std::strtol(s->c_str(), nullptr, 10) == integer) &&
                           (!isId || std::strtoul(s->c_str(), nullptr, 10) == id) && (!isInteger || isNumber) &&
                           !(isFlag && isNumber) && (!isFlag || s->size() == (flag ? 4u : 5u));
        if (!right)
            std::abort();
    }
    return 0;
}
