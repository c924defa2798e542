// Internal interface of the logging service: the sink that every line of the platform goes
// through. Other services log through these functions, never through the exported calls,
// so that the call trace shows only what a client asked for.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace hadra::plat::log {

// Longest text of one line; longer texts are cut.
constexpr size_t kMaxLineText = 4096;

// True when a line would go anywhere (a sink other than "none", or the test capture):
// callers use it to skip formatting.
bool wanted() noexcept;
// Write one line of text at level (0..7; other values are clamped). Trailing newlines of
// text are dropped: the sink ends every line itself.
void write_line(int level, const char* text, size_t len) noexcept;
void vwritef(int level, const char* fmt, va_list ap) noexcept;
void writef(int level, const char* fmt, ...) noexcept __attribute__((format(printf, 2, 3)));
// writef, rate-limited like the reports: at most the burst of lines per key per window;
// the lines held back are counted and their count is said later (see ratelimit.cc). key
// names the repeating thing, e.g. "pss write <file>".
void limited_writef(const char* key, int level, const char* fmt, ...) noexcept __attribute__((format(printf, 3, 4)));
// Identity of this process's log lines (LOG_IDENT, or the program name).
const char* ident() noexcept;

// Default facility name: the ident, filled in once configuration can be read.
void facility_settle() noexcept;

}  // namespace hadra::plat::log
