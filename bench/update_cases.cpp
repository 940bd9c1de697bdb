// FilePO::update in one transaction, and the same statements in the same order by a bare
// connection, with the host's parse, comparison and print of each entry.
#include "bench/cases.h"
#include "bench/databases.h"
#include "refhost/record.h"

namespace bench {

namespace {

enum class Kind { New, Identical, Replaced, Deleted };

struct Updates {
  Directory directory;
  std::vector<Row> rows;
  Entries entries;
  std::vector<std::string> texts;
  std::vector<PO*> removed;
  std::vector<PO*> udcid;
  std::vector<PORecord> records;  // the floor's removed ones

  Updates(Kind kind, std::size_t count) : rows(make_rows(count)) {
    if (kind != Kind::New) put_all(directory.podb, make_entries(rows, directory), count);
    if (kind == Kind::Replaced) rows = make_rows(count, 1);
    entries = make_entries(rows, directory);
    for (const Row& row : rows) texts.push_back(insert_text(row));
    if (kind == Kind::Deleted) mark_deleted();
  }
  Updates(const Updates&) = delete;
  Updates& operator=(const Updates&) = delete;
  ~Updates() {
    for (PO* entry : removed) delete entry;  // NOLINT: the list owns what it was given
  }

 private:
  void mark_deleted();
};

void Updates::mark_deleted() {
  for (const auto& entry : entries) {
    refhost::RecordFields fields = refhost::get_fields(entry->record());
    fields.mod_type = PO_MODTYPE_DELETE;
    must(refhost::set_fields(entry->record(), fields) != 0, "mark");
  }
}

void update_by_library(Updates& updates) {
  SQLitePODB& podb = updates.directory.podb;
  ds_info_t info{};
  info.total_size = info.file_count = 1000000;
  std::string action;
  must(podb.begin_transaction(), "begin");
  for (const auto& entry : updates.entries) {
    must(entry->update(&podb, info, updates.removed, updates.udcid, action), "update");
  }
  must(podb.commit_transaction(), "commit");
}

class BareUpdate {
 public:
  BareUpdate(Updates& updates, BareDatabase& db, Kind kind)
      : updates_(updates), db_(db), kind_(kind) {}

  void run() {
    db_.exec("BEGIN IMMEDIATE TRANSACTION;");
    for (std::size_t i = 0; i < updates_.rows.size(); ++i) apply(i);
    db_.exec("COMMIT TRANSACTION;");
  }

 private:
  void apply(std::size_t i) {
    const std::string where = where_name_is(updates_.rows[i]);
    if (kind_ != Kind::Deleted) count(where);
    if (kind_ != Kind::New) load(where);
    if (kind_ == Kind::Identical || kind_ == Kind::Replaced) compare(i);
    if (kind_ == Kind::Replaced || kind_ == Kind::Deleted) db_.exec("DELETE FROM po" + where);
    if (kind_ == Kind::Deleted) return;
    ask_host_to_store(*updates_.entries[i]);
    db_.exec(updates_.texts[i]);
  }

  void count(const std::string& where) {
    CountCheck count;
    db_.exec("SELECT COUNT(*) FROM po" + where, CountCheck::take, &count);
    must(count.value != (kind_ == Kind::New ? 0 : 1), "bare update");
  }

  void load(const std::string& where) {
    RowCheck check;
    check.keep = &updates_.records;
    db_.exec(kSelect + where, RowCheck::take, &check);
    must(check.rows != 1, "bare update");
  }

  void compare(std::size_t i) {
    const bool same = POEqualsPO(updates_.records.back().get(), updates_.entries[i]->record(), 0);
    must(same != (kind_ == Kind::Identical), "bare update");
    if (same) updates_.records.pop_back();
  }

  Updates& updates_;
  BareDatabase& db_;
  const Kind kind_;
};

Work library_work(Kind kind, std::size_t count) {
  const auto updates = std::make_shared<Updates>(kind, count);
  return [=] { update_by_library(*updates); };
}

Work floor_work(Kind kind, std::size_t count) {
  const auto updates = std::make_shared<Updates>(kind, count);
  const auto db = std::make_shared<BareDatabase>(updates->directory.podb.get_dbfile_path());
  return [=] { BareUpdate(*updates, *db, kind).run(); };
}

void add_updates(Cases& cases, std::size_t count, const std::string& suffix) {
  for (const auto& [name, which] :
       {std::pair("new", Kind::New), std::pair("identical", Kind::Identical),
        std::pair("replaced", Kind::Replaced), std::pair("deleted", Kind::Deleted)}) {
    const Kind kind = which;
    cases.push_back({std::string("FilePO::update/") + name + suffix,
                     count,
                     0.90,
                     {{"library", [=] { return library_work(kind, count); }},
                      {"floor", [=] { return floor_work(kind, count); }}}});
  }
}

}  // namespace

void add_update_cases(Cases& cases, std::size_t scale) { add_updates(cases, 10000 / scale, ""); }

void add_update_growth(Cases& cases, std::size_t rows) {
  add_updates(cases, rows, "/" + grouped(rows));
}

}  // namespace bench
