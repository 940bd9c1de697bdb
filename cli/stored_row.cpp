#include "cli/stored_row.h"

namespace cli {

RawRow stored_row(const Statement& statement) {
  const auto column = [&statement](int index) {
    const int type = statement.type(index);
    return RawColumn{type, statement.bytes(index)};
  };
  return {statement.integer(0), column(1),           column(2), column(3),
          statement.type(4),    statement.integer(4)};
}

}  // namespace cli
