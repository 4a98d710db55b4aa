#include "kovcam/serve/Parameters.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>

#include "common/Text.h"
#include "kovcam/serve/Http.h"

namespace kovserve {

using kovtools::Lower;

namespace {

// False unless all of the text is a number that fits.
template <class T>
bool Read(const std::string& text, T* value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

Parameters Parameters::OfForm(const std::string& body)
{
    Parameters p;
    p.m_exact = true;
    p.m_values = ParseForm(body);
    return p;
}

Parameters Parameters::OfQuery(const std::multimap<std::string, std::string>& query)
{
    Parameters p;
    for (const auto& [key, value] : query)
        p.m_values.emplace(Lower(key), value);
    return p;
}

const std::string* Parameters::Find(const std::string& name) const
{
    const auto it = m_values.find(m_exact ? name : Lower(name));
    return it == m_values.end() ? nullptr : &it->second;
}

const std::string& Parameters::Text(const std::string& name) const
{
    const std::string* const s = Find(name);
    if (s == nullptr)
        throw BadRequest(fmt::format("parameter {} is missing (names are case-sensitive)", name));
    return *s;
}

double Parameters::Number(const std::string& name) const
{
    double value = 0;
    if (!Read(Text(name), &value) || !std::isfinite(value))
        throw BadRequest(fmt::format("{}: '{}' is no number", name, Text(name)));
    return value;
}

int32_t Parameters::Integer(const std::string& name) const
{
    int32_t value = 0;
    if (!Read(Text(name), &value))
        throw BadRequest(fmt::format("{}: '{}' is no whole number", name, Text(name)));
    return value;
}

bool Parameters::Bool(const std::string& name) const
{
    const std::string value = Lower(Text(name));
    if (value != "true" && value != "false")
        throw BadRequest(fmt::format("{}: '{}' is neither true nor false", name, Text(name)));
    return value == "true";
}

uint32_t Parameters::Id(const std::string& name, bool* present) const
{
    const std::string* const s = Find(name);
    *present = s != nullptr;
    uint32_t value = 0;
    if (s != nullptr && !Read(*s, &value))
        throw BadRequest(fmt::format("{}: '{}' is no number from 0 to 4294967295", name, *s));
    return value;
}

}  // namespace kovserve
