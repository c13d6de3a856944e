// A copy of a value: fields of the packed wire types must not be bound to the
// references that the comparison macros take (misaligned reference).
#pragma once

namespace mcutest {
template <typename T>
T val(T v) {
    return v;
}
}  // namespace mcutest
