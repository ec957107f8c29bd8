// The publisher's log: one line per message on standard output, written on
// whichever thread logs. Tests may divert the lines to a sink of their own.
#ifndef UTILITY_QZ_LOG_H_
#define UTILITY_QZ_LOG_H_

#include <functional>
#include <string>

namespace qz_utility {

// Writes `text` and a line end (as puts does).
void LogLine(const char* text);

// Writes a printf-style format; the formats of the log end in "\n".
void LogFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Receives every line instead of standard output while installed; each call
// gets the complete text of one message, line end included. Pass an empty
// function to restore standard output.
using LogSink = std::function<void(const std::string& line)>;
void SetLogSinkForTesting(LogSink sink);

}  // namespace qz_utility

#endif  // UTILITY_QZ_LOG_H_
