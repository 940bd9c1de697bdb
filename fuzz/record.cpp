// Text forms of entries from arbitrary bytes: what is taken prints as the same bytes, and what is
// refused changes nothing.
#include "fuzz/property.h"
#include "po/file_po.h"
#include "tests/support/records.h"

namespace {

void check_taken(const _po_t* record, const std::string& text) {
  require(text_of(record) == text, "a text that was taken prints as it was");
  const refhost::RecordFields fields = refhost::get_fields(record);
  require(text_of(fields) == text, "its fields say the same");
  std::string joined;
  for (const refhost::NamedField& field : refhost::named_fields(record)) {
    joined += (joined.empty() ? "" : "|") + field.text;
  }
  require(joined == text, "the fields by name, joined, are the text");
  const RecordPtr copy(POCopy(record));
  require(POEqualsPO(copy.get(), record, 0) != 0, "a copy is equal");
}

void check_object(const std::string& text, bool taken) {
  const std::unique_ptr<PO> object(PO::getObject(text, po_stype_t{}));
  require(taken || object == nullptr, "no object is made of what the record refuses");
  if (object == nullptr) return;
  const int type = POGetType(object->record());
  require(type == PO_TYPE_FILE || type == PO_TYPE_DIR, "objects are files and directories");
  require(object->get_dsid() == POGetDsid(object->record()), "its data store is the text's");
  std::string printed;
  require(object->to_string(printed) == 0 && printed == text, "an object prints as its text");
  require(object->remove_info() == 0 && object->to_string(printed) == 0, "a location is taken off");
  const RecordPtr stored = make_record();
  require(POSetFromString(stored.get(), printed.c_str()) == 0, "and the rest is taken again");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  scratch();
  const std::string text = Input(data, size).text('\0');
  const RecordPtr record = make_record();
  const std::string before = text_of(record.get());
  const bool taken = POSetFromString(record.get(), text.c_str()) == 0;
  if (taken) {
    check_taken(record.get(), text);
  } else {
    require(text_of(record.get()) == before, "a text that is refused changes nothing");
  }
  check_object(text, taken);
  return 0;
}
