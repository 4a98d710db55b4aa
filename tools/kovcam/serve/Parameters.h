// What a request of Alpaca says beside its path.
#pragma once
#include <cstdint>
#include <map>
#include <string>

namespace kovserve {

// The getters throw BadRequest for a value that is missing or of another kind.
class Parameters {
public:
    static Parameters OfForm(const std::string& body);                                // of a PUT: its names are exact
    static Parameters OfQuery(const std::multimap<std::string, std::string>& query);  // of a GET: names in any case

    const std::string* Find(const std::string& name) const;  // nullptr: absent
    const std::string& Text(const std::string& name) const;
    double Number(const std::string& name) const;  // finite
    int32_t Integer(const std::string& name) const;
    bool Bool(const std::string& name) const;
    // Absent: 0. Present it must be a number that fits.
    uint32_t Id(const std::string& name, bool* present) const;

private:
    bool m_exact = false;
    std::multimap<std::string, std::string> m_values;
};

}  // namespace kovserve
