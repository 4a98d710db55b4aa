// Output for scripts.
#pragma once
#include <nlohmann/json.hpp>

namespace kovcam {

using Json = nlohmann::ordered_json;  // members come in the order in which they were put

// To standard output. Text that is no UTF-8 (a name out of a device) is mended, not refused.
void Print(const Json& json);

}  // namespace kovcam
