// SQLitePODB::double_check, and the same batches by bare statements. The floor makes their texts of
// the same sets, and does with the rows what the library must do.
#include <set>

#include "bench/cases.h"
#include "bench/databases.h"

namespace bench {

namespace {

constexpr std::size_t kBatch = 10240;
constexpr std::size_t kRows = 1000000;

using Poids = std::set<std::string>;

// Of rows that are stored, or of none.
Poids make_poids(std::size_t count, bool stored) {
  Poids poids;
  for (std::size_t n = 0; n < count; ++n) poids.insert(make_poid(stored ? n : n + kRows));
  return poids;
}

std::vector<std::string> batches(const Poids& poids, const std::string& head) {
  std::vector<std::string> texts;
  std::size_t taken = 0;
  for (const std::string& poid : poids) {
    if (taken++ % kBatch == 0) texts.push_back(head + " WHERE poid IN (");
    texts.back() += "'" + poid + "',";
  }
  for (std::string& text : texts) text += "'placeholder')";
  return texts;
}

struct Sets {
  Poids affected;
  Poids candidates;
  POQueue out;
  std::vector<PORecord> records;
};

Sets make_sets(std::size_t count, bool hits) {
  Sets sets;
  sets.affected = make_poids(count, hits);
  sets.candidates = sets.affected;
  return sets;
}

void check_by_library(Filled& filled, Sets& sets, bool hits) {
  unsigned long total = 0;
  must(filled.directory.podb.double_check(&sets.affected, &sets.out, &sets.candidates, &total),
       "double_check");
  must(total != filled.rows.size() || sets.affected.empty() != hits ||
           sets.candidates.empty() != hits,
       "double_check's result");
}

int erase_poid(void* context, int, char** values, char**) {
  static_cast<Poids*>(context)->erase(values[0]);
  return 0;
}

void check_by_floor(Filled& filled, Sets& sets) {
  RowCheck check;
  check.keep = &sets.records;
  std::size_t erased = 0;
  for (const std::string& sql : batches(sets.affected, kSelect)) {
    filled.bare.exec(sql, RowCheck::take, &check);
    for (; erased < sets.records.size(); ++erased) {
      sets.affected.erase(POGetHashRef(sets.records[erased].get()));
    }
  }
  for (const std::string& sql : batches(sets.candidates, "SELECT poid FROM po")) {
    filled.bare.exec(sql, erase_poid, &sets.candidates);
  }
  CountCheck count;
  filled.bare.exec("SELECT COUNT(*) FROM po", CountCheck::take, &count);
  must(count.value != filled.rows.size(), "bare check");
}

using SharedRows = std::shared_ptr<std::unique_ptr<Filled>>;

Filled& filled_with(const SharedRows& shared, std::size_t rows) {
  if (!*shared) *shared = std::make_unique<Filled>(make_rows(rows));
  return **shared;
}

Work library_work(const SharedRows& shared, std::size_t rows, bool hits) {
  Filled& filled = filled_with(shared, rows);
  const auto sets = std::make_shared<Sets>(make_sets(rows, hits));
  return [=, &filled] { check_by_library(filled, *sets, hits); };
}

Work floor_work(const SharedRows& shared, std::size_t rows, bool hits) {
  Filled& filled = filled_with(shared, rows);
  const auto sets = std::make_shared<Sets>(make_sets(rows, hits));
  return [=, &filled] { check_by_floor(filled, *sets); };
}

Case check_case(const std::string& name, std::size_t rows, const SharedRows& shared, bool hits) {
  return {"double_check/" + name,
          rows,
          0.95,
          {{"library", [=] { return library_work(shared, rows, hits); }},
           {"floor", [=] { return floor_work(shared, rows, hits); }}}};
}

}  // namespace

void add_check_cases(Cases& cases, std::size_t scale) {
  const std::size_t n = kRows / scale;
  const auto shared = std::make_shared<std::unique_ptr<Filled>>();
  cases.push_back(check_case(grouped(n) + " rows, all hits", n, shared, true));
  cases.push_back(check_case(grouped(n) + " rows, all misses", n, shared, false));
}

void add_check_growth(Cases& cases, std::size_t rows) {
  const auto shared = std::make_shared<std::unique_ptr<Filled>>();
  cases.push_back(check_case(grouped(rows), rows, shared, true));
}

}  // namespace bench
