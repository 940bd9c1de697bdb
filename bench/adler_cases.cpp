// The checksum, beside zlib's.
#include <zlib.h>

#include <memory>

#include "base/adler32.h"
#include "bench/cases.h"

namespace bench {

namespace {

constexpr std::size_t kBytes = std::size_t{64} << 20;

template <typename Sum>
Work repeated(std::size_t size, std::size_t times, Sum sum) {
  const auto bytes = std::make_shared<std::vector<unsigned char>>(size);
  for (std::size_t i = 0; i < size; ++i) (*bytes)[i] = static_cast<unsigned char>(i * 131 + 7);
  return [=] {
    std::size_t all = 0;
    for (std::size_t n = 0; n < times; ++n) all += sum(bytes->data(), size);
    keep(all);
  };
}

std::size_t ours(const unsigned char* bytes, std::size_t size) {
  return base::adler32(base::kAdler32Start, bytes, size);
}

std::size_t zlibs(const unsigned char* bytes, std::size_t size) {
  return adler32(1, bytes, static_cast<uInt>(size));
}

}  // namespace

void add_adler_cases(Cases& cases, std::size_t scale) {
  for (const auto& [name, size] :
       {std::pair("300 B", 300UL), std::pair("4 KiB", 4096UL), std::pair("1 MiB", 1UL << 20)}) {
    const std::size_t bytes = size;
    const std::size_t times = kBytes / bytes / scale + 1;
    cases.push_back({std::string("Adler-32/") + name,
                     times,
                     1.0,
                     {{"library", [=] { return repeated(bytes, times, ours); }},
                      {"floor", [=] { return repeated(bytes, times, zlibs); }}}});
  }
}

}  // namespace bench
