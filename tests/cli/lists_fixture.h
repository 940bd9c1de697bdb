// A catalog whose contents have lists of containers.
#pragma once

#include <initializer_list>
#include <utility>

#include "tests/cli/read_fixture.h"
#include "tests/support/raw_database.h"
#include "uldb/sqlite_uldb.h"

// Files "alpha" and "beta" share a content; "gamma" has its own, and "empty" has none.
class ListsTest : public CatalogTest {
 protected:
  using Containers = std::vector<std::uint64_t>;

  ListsTest() {
    add_content("alpha", 1, 1000);
    add_content("beta", 1, 1000);
    add_content("gamma", 2, 50);
    add_file("empty");
    add_list(1, {100, 200});
    add_list(2, {200});
  }

  static refhost::RecordFields content(std::uint64_t number, std::uint64_t size) {
    refhost::RecordFields fields = file_fields("", make_poid(number), size);
    fields.content_fp = fields.poid;
    return fields;
  }
  void add_content(const std::string& name, std::uint64_t number, std::uint64_t size) {
    add_file(name, content(number, size));
  }

  // Every container holds its own number of bytes.
  void add_list(std::uint64_t number, Containers containers) {
    const auto count = static_cast<unsigned int>(containers.size());
    const Containers sizes = containers;
    containers.insert(containers.end(), sizes.begin(), sizes.end());
    UDCIDRecord list(count, reinterpret_cast<unsigned char*>(containers.data()));
    SQLiteULDB db(full(image_), 0);
    ASSERT_EQ(db.put(make_poid(number).c_str(), &list, nullptr), 0);
  }

  std::string lists() const { return full(image_) + "/ul.db"; }
};
