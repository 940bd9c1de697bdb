// What the host hands over, in types that own, and its status cell.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include "host/po_record.h"
#include "host/status.h"

class PO;

// A string of the host's, from malloc.
struct HostStringDeleter {
  void operator()(char* text) const { std::free(text); }
};
using HostString = std::unique_ptr<char, HostStringDeleter>;

// The record's text form; null, after a log line, when the host cannot make it.
HostString printed(const _po_t* record);

// A new record, and a deep copy of one; null after a log line.
_po_t* created_record();
_po_t* copied_record(const _po_t* record);

// Where an entry lies below `root`, whatever its directory is: its leaf may be empty.
std::string catalog_path(const PO& entry, const std::string& root);

// Logs that `text` is no entry's text form.
void log_unparsable(const std::string& text);

inline std::string text_or_empty(const char* text) { return text == nullptr ? "" : text; }

inline cr_status_t host_status() { return *__cr_errno_location(); }
inline void set_host_status(cr_status_t status) { *__cr_errno_location() = status; }

// The host's status after one of its functions failed; CR_STATUS_FAILED when it left none.
inline cr_status_t failure_status() {
  const cr_status_t status = host_status();
  return status == CR_STATUS_OK ? CR_STATUS_FAILED : status;
}

// Operations of entries return statuses as unsigned values, those of databases as they are.
inline unsigned int as_result(cr_status_t status) { return static_cast<unsigned int>(status); }
inline cr_status_t as_status(unsigned int result) { return static_cast<cr_status_t>(result); }
