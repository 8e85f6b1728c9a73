#include "sasl-props.h"

#include <cstdint>
#include <cstdlib>

namespace tool_sasl {

bool parse_secprops(const std::string &list, uint32_t &min, uint32_t &max, std::string &bad)
{
    size_t at = 0;
    while (at <= list.size()) {
        size_t comma = list.find(',', at);
        std::string prop = list.substr(at, comma == std::string::npos ? comma : comma - at);
        at = comma == std::string::npos ? list.size() + 1 : comma + 1;
        size_t eq = prop.find('=');
        std::string name = prop.substr(0, eq);
        std::string v = eq == std::string::npos ? "" : prop.substr(eq + 1);
        bool digits =
            !v.empty() && v.size() <= 10 && v.find_first_not_of("0123456789") == std::string::npos;
        if ((name != "minssf" && name != "maxssf") || !digits ||
            std::strtoull(v.c_str(), nullptr, 10) > INT32_MAX) {
            bad = prop;
            return false;
        }
        (name == "minssf" ? min : max) =
            static_cast<uint32_t>(std::strtoul(v.c_str(), nullptr, 10));
    }
    return true;
}

}  // namespace tool_sasl
