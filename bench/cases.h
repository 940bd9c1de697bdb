// What is measured. Sizes are divided by `scale`: 1 for figures, more for a quick run of
// everything.
#pragma once

#include <cstddef>
#include <vector>

#include "bench/measure.h"

namespace bench {

using Cases = std::vector<Case>;

// The cases of the table.
void add_put_cases(Cases& cases, std::size_t scale);
void add_read_cases(Cases& cases, std::size_t scale);
void add_check_cases(Cases& cases, std::size_t scale);
void add_update_cases(Cases& cases, std::size_t scale);
void add_directory_cases(Cases& cases, std::size_t scale);
void add_uldb_cases(Cases& cases, std::size_t scale);
void add_udcid_cases(Cases& cases, std::size_t scale);
void add_adler_cases(Cases& cases, std::size_t scale);
void add_pool_cases(Cases& cases, std::size_t scale);

// Some of them at a size of its own, for the table of growth.
void add_put_growth(Cases& cases, std::size_t rows);
void add_read_growth(Cases& cases, std::size_t rows);
void add_check_growth(Cases& cases, std::size_t rows);
void add_update_growth(Cases& cases, std::size_t rows);
void add_uldb_growth(Cases& cases, std::size_t records);
void add_directory_growth(Cases& cases, std::size_t directories);

}  // namespace bench
