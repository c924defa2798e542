// Texts of platform error codes.
//
// One table holds the text of every code that errors.h defines; errno values (below
// 0x10000) get the C library's text; anything else is shown as "unknown error 0x%08x" and
// never given an invented meaning. Texts that are not static live in a small per-thread
// ring of buffers, so that one formatted line may show several codes (the SDB reports print
// two in one call) without the second overwriting the first.
#include <cstdio>
#include <cstring>

#include "common/call.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/strutil.h"

namespace {

struct ErrText {
  uint32_t code;
  const char* text;
};

constexpr ErrText kErrTexts[] = {
    {PLAT_ERR_SYSMGR_GSYNC_FATAL, "system manager: fatal global sync error"},
    {PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE, "system manager: service not running on the active supervisor"},
    {PLAT_ERR_SYSMGR_BAD_URI, "system manager: URI malformed or too long"},
    {PLAT_ERR_SYSMGR_NO_TABLE, "system manager: sequence-number table not allocated"},
    {PLAT_ERR_SYSMGR_BAD_INDEX, "system manager: registry index out of range"},
    {PLAT_ERR_SYSMGR_NO_DAEMON, "system manager: daemon unreachable"},
    {PLAT_ERR_PSS_NO_RECORD, "pss: no record at the key or position"},
    {PLAT_ERR_PSS_NOT_FOUND, "pss: file does not exist"},
    {PLAT_ERR_PSS_EXISTS, "pss: file already exists"},
    {PLAT_ERR_PSS_BAD_HANDLE, "pss: handle not open"},
    {PLAT_ERR_PSS_FULL, "pss: file size limit reached"},
    {PLAT_ERR_PSS_BAD_ARG, "pss: invalid argument"},
    {PLAT_ERR_PSS_IO, "pss: storage error"},
    {PLAT_ERR_PSS_BAD_URI, "pss: URI does not name a pss location"},
    {PLAT_ERR_PSS_TOO_MANY, "pss: too many open handles"},
    {PLAT_ERR_PSS_READ_ONLY, "pss: write through a handle opened without write access"},
    {PLAT_ERR_SDB_ALREADY_OPEN, "sdb: already open in this process"},
    {PLAT_ERR_SDB_EXISTS, "sdb: already exists"},
    {PLAT_ERR_SDB_NOT_FOUND, "sdb: does not exist"},
    {PLAT_ERR_SDB_NOT_OPEN, "sdb: not open in this process"},
    {PLAT_ERR_SDB_NO_RECORD, "sdb: no record at the key"},
    {PLAT_ERR_SDB_BAD_ARG, "sdb: invalid argument"},
    {PLAT_ERR_SDB_IO, "sdb: storage error"},
    {PLAT_ERR_SDB_FULL, "sdb: size limit reached"},
    {PLAT_ERR_SDB_READ_ONLY, "sdb: write on a read-only database"},
    {PLAT_ERR_SDB_BAD_URI, "sdb: URI does not name an sdb location"},
    {PLAT_ERR_SDB_NO_ITER, "sdb: iterator not positioned or at end"},
    {PLAT_ERR_MTS_NO_SAP, "mts: SAP not bound in this process"},
    {PLAT_ERR_MTS_NO_PEER, "mts: peer unreachable"},
    {PLAT_ERR_MTS_TOO_BIG, "mts: payload larger than the transport allows"},
    {PLAT_ERR_MTS_BAD_MSG, "mts: malformed message or reference"},
    {PLAT_ERR_MTS_EMPTY, "mts: nothing to receive"},
    {PLAT_ERR_MTS_SEQ_GAP, "mts: sender's sequence numbers skipped"},
};

constexpr uint32_t kErrnoLimit = 0x10000;
constexpr int kRing = 4;
constexpr size_t kBufSize = 128;

char* next_buffer() noexcept {
  thread_local char bufs[kRing][kBufSize];
  thread_local int next = 0;
  char* b = bufs[next];
  next = (next + 1) % kRing;
  return b;
}

const char* text_of(uint32_t code) noexcept {
  for (const ErrText& e : kErrTexts)
    if (e.code == code) return e.text;
  char* buf = next_buffer();
  if (code < kErrnoLimit) {
    // GNU strerror_r may return a static text instead of filling buf; copy it in either way
    // so that the result is ours to keep until the ring comes round.
    const char* t = strerror_r(static_cast<int>(code), buf, kBufSize);
    if (t != buf) std::snprintf(buf, kBufSize, "%s", t);
    return buf;
  }
  std::snprintf(buf, kBufSize, "unknown error 0x%08x", code);
  return buf;
}

// Shared by both exported names: an injected failure still yields a readable text, since
// callers pass the result straight to a %s conversion.
const char* traced_text(const char* call, uint32_t code) noexcept {
  hadra::plat::Call c("str", call, 0);
  c.args("code=0x%08x", code);
  if (c.faulted()) {
    (void)c.fail<int>();
    return "error text unavailable";
  }
  return c.ret(text_of(code));
}

}  // namespace

extern "C" {

// flags is reserved; any value is treated as 0.
HADRA_PLAT_API const char* hadra_syserr2str(uint32_t code, int flags) noexcept {
  (void)flags;
  return traced_text("hadra_syserr2str", code);
}

HADRA_PLAT_API const char* syserr2str(uint32_t code) noexcept { return traced_text("syserr2str", code); }

}  // extern "C"
