#include "cli/containers.h"

#include <algorithm>
#include <boost/numeric/conversion/cast.hpp>

namespace cli {
namespace {

constexpr std::uint64_t kFirstContainer = 64;
constexpr std::size_t kContainerBytes = 6;

}  // namespace

std::uint64_t container_of(const Sha256& segment) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < kContainerBytes; ++i) number = number << 8 | segment[i];
  return kFirstContainer + number;
}

std::unique_ptr<UDCIDRecord> container_list(const std::vector<Segment>& segments) {
  std::vector<std::uint64_t> containers;
  containers.reserve(segments.size());
  for (const Segment& segment : segments) containers.push_back(segment.container);
  _cr_stat_t used{boost::numeric_cast<std::uint32_t>(containers.size()), containers.data()};
  auto list = std::make_unique<UDCIDRecord>(&used);
  std::uint64_t* const end = list->dcids + list->ndcid;
  for (const Segment& segment : segments) {
    const std::uint64_t* const found = std::lower_bound(list->dcids, end, segment.container);
    end[found - list->dcids] += segment.bytes;
  }
  return list;
}

}  // namespace cli
