// ldapsearch's -O list of SASL security properties, of which both tools take the
// strength range of the security layer (minssf=N, maxssf=N).
#ifndef TOVEISTROR_SASL_PROPS_H
#define TOVEISTROR_SASL_PROPS_H

#include <cstdint>
#include <string>

namespace tool_sasl {

// Adds the comma-separated list to min and max. False, with the property in bad,
// for anything else or a strength above 2^31 - 1; min above max is the caller's check.
bool parse_secprops(const std::string &list, uint32_t &min, uint32_t &max, std::string &bad);

}  // namespace tool_sasl

#endif
