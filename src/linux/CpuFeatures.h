#pragma once

namespace pavix {

// Whether this processor runs AVX2, asked once.
inline bool hasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}

}  // namespace pavix
