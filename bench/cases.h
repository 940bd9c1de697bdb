// What is measured. `scale` divides the sizes: 1 for figures, more for a quick run of everything.
#pragma once

#include <cstddef>
#include <vector>

#include "bench/measure.h"

namespace bench {

void add_podb_cases(std::vector<Case>& cases, std::size_t scale);
void add_adler_cases(std::vector<Case>& cases, std::size_t scale);

}  // namespace bench
