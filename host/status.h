// Status codes, the per-thread status cell and the host's exception class.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "host/api.h"

// The host's status: 0 is success. The library produces and tests the values below.
using cr_status_t = std::int32_t;

inline constexpr cr_status_t CR_STATUS_OK = 0;
inline constexpr cr_status_t CR_STATUS_HELD = 1;           // a live process holds the daemon lock
inline constexpr cr_status_t CR_STATUS_NOT_FOUND = 2;      // no such file, record or row; not open
inline constexpr cr_status_t CR_STATUS_EXISTS = 3;         // a non-empty database is already there
inline constexpr cr_status_t CR_STATUS_FAILED = 4;         // generic failure
inline constexpr cr_status_t CR_STATUS_BAD_ARG = 9;        // null or too small, invalid identifier
inline constexpr cr_status_t CR_STATUS_BUSY = 11;          // locked by another connection
inline constexpr cr_status_t CR_STATUS_NO_RECORD = 13;     // a host record could not be made
inline constexpr cr_status_t CR_STATUS_UNSUPPORTED = 16;   // a hook that has nothing behind it
inline constexpr cr_status_t CR_STATUS_LOCK_LOWERED = 19;  // a retention lock would move backwards
inline constexpr cr_status_t CR_STATUS_IO_ERROR = 21;      // disk I/O error
inline constexpr cr_status_t CR_STATUS_NO_MEMORY = 22;     // memory allocation failed
inline constexpr cr_status_t CR_STATUS_BAD_DATA = 32;      // empty file, invalid size, bad checksum
inline constexpr cr_status_t CR_STATUS_NO_LOCATION = 47;   // the entry has no directory or no leaf
inline constexpr cr_status_t CR_STATUS_CORRUPT = 67;       // damaged, not a database, or moved away
inline constexpr cr_status_t CR_STATUS_NOT_PROVIDED = 71;  // not provided by this store
inline constexpr cr_status_t CR_STATUS_UNAVAILABLE = 95;   // the function is not available
inline constexpr cr_status_t CR_STATUS_BAD_RECORD = 103;   // wrong type, or does not parse
inline constexpr cr_status_t CR_STATUS_NOT_EMPTY = 119;    // the database was kept
inline constexpr cr_status_t CR_STATUS_IMMUTABLE = 127;    // an entry of an immutable image
inline constexpr cr_status_t CR_STATUS_NONE = -1;          // no particular status

extern "C" {

// The address of the calling thread's status cell. Every host function that fails stores its status
// there; the library reads it after a failed call and writes it before one of its own factories
// returns null. Never null; one cell per thread.
HOST_API cr_status_t* __cr_errno_location();

// A constant text for `status`, for log lines; a generic one when the value is unknown. Never null.
HOST_API const char* CRStatusToStringA(cr_status_t status);

// Maps the calling thread's `errno` to a status and returns it. `function`, `source` and `line`
// name the place that asks; the line is not significant.
HOST_API cr_status_t _crMapError(const char* function, const char* source, int line);

}  // extern "C"

// Thrown by constructors of the library that cannot build their object. Copyable without throwing.
class HOST_API Cr_ErrnoException : public std::exception {
 public:
  // Copies both texts; `extra` may be null.
  Cr_ErrnoException(cr_status_t status, const char* message, const char* extra);
  Cr_ErrnoException(const Cr_ErrnoException& other) noexcept;
  Cr_ErrnoException& operator=(const Cr_ErrnoException& other) noexcept;
  ~Cr_ErrnoException() override;

  // The message, followed by ": " and the extra text when there is one.
  const char* what() const noexcept override;
  cr_status_t status() const noexcept;

 private:
  cr_status_t status_;
  std::string text_;
};
