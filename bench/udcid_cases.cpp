// The binary form of DCID records and its text. The floor sums and copies the same bytes, with the
// library's own sum, which is the faster one; a third side does so with zlib's.
#include <zlib.h>

#include <cstring>

#include "base/adler32.h"
#include "bench/cases.h"
#include "bench/rows.h"
#include "uldb/udcid_record.h"

namespace bench {

namespace {

struct Lists {
  std::vector<std::uint64_t> list;
  UDCIDRecord record;
  std::vector<unsigned char> binary;
  std::vector<unsigned char> copy;
  std::vector<char> text;

  explicit Lists(std::uint32_t entries)
      : list(2 * std::size_t{entries}, 1000),
        record(entries, reinterpret_cast<unsigned char*>(list.data())),
        binary(12 + 16 * std::size_t{entries}),
        copy(binary.size()),
        text(2 * binary.size() + 1) {
    serialize();
  }

  void serialize() {
    unsigned int size = static_cast<unsigned int>(binary.size());
    must(static_cast<unsigned long>(record.Serialize(binary.data(), size)), "Serialize");
  }
};

void deserialize(Lists& lists) {
  UDCIDRecord record;
  const auto size = static_cast<unsigned int>(lists.binary.size());
  must(static_cast<unsigned long>(record.Deserialize(lists.binary.data(), size)), "Deserialize");
  keep(record.ndcid);
}

void to_string(Lists& lists) {
  const auto size = static_cast<unsigned int>(lists.text.size());
  must(static_cast<unsigned long>(lists.record.toString(lists.text.data(), size)), "toString");
}

template <typename Sum>
void sum_and_copy(Lists& lists, Sum sum) {
  std::memcpy(lists.copy.data(), lists.binary.data(), lists.binary.size());
  keep(sum(lists.copy.data(), lists.binary.size() - 4));
}

void floor(Lists& lists) {
  sum_and_copy(lists, [](const unsigned char* bytes, std::size_t size) {
    return base::adler32(base::kAdler32Start, bytes, size);
  });
}

void zlibs_floor(Lists& lists) {
  sum_and_copy(lists, [](const unsigned char* bytes, std::size_t size) {
    return adler32(1, bytes, static_cast<uInt>(size));
  });
}

Side side(const char* name, std::uint32_t entries, std::size_t times, void (*run)(Lists&)) {
  return {name, [=] {
            const auto lists = std::make_shared<Lists>(entries);
            return [=] {
              for (std::size_t n = 0; n < times; ++n) run(*lists);
            };
          }};
}

void add(Cases& cases, const char* name, std::uint32_t entries, std::size_t scale,
         void (*run)(Lists&)) {
  const std::size_t times = 8000000 / (entries + 20) / scale + 1;
  cases.push_back({std::string("UDCIDRecord::") + name + "/" + grouped(entries) + " entries",
                   times,
                   0.80,
                   {side("library", entries, times, run), side("floor", entries, times, floor),
                    side("with zlib's sum", entries, times, zlibs_floor)}});
}

}  // namespace

void add_udcid_cases(Cases& cases, std::size_t scale) {
  for (const std::uint32_t entries : {4U, 1000U, 100000U}) {
    add(cases, "Serialize", entries, scale, [](Lists& lists) { lists.serialize(); });
    add(cases, "Deserialize", entries, scale, deserialize);
    add(cases, "toString", entries, scale, to_string);
  }
}

}  // namespace bench
