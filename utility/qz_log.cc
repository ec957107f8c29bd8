#include "utility/qz_log.h"

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

namespace qz_utility {
namespace {

std::mutex g_sink_mutex;  // guards g_sink
std::shared_ptr<LogSink> g_sink;

std::shared_ptr<LogSink> CurrentSink() {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  return g_sink;
}

}  // namespace

void LogLine(const char* text) {
  if (std::shared_ptr<LogSink> sink = CurrentSink()) {
    (*sink)(std::string(text) + "\n");
    return;
  }
  std::puts(text);
}

void LogFormat(const char* format, ...) {
  std::shared_ptr<LogSink> sink = CurrentSink();
  va_list args;
  va_start(args, format);
  if (!sink) {
    std::vprintf(format, args);
    va_end(args);
    return;
  }
  char small[512];
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(small, sizeof(small), format, copy);
  va_end(copy);
  std::string line;
  if (needed >= 0 && static_cast<size_t>(needed) < sizeof(small)) {
    line.assign(small, static_cast<size_t>(needed));
  } else if (needed >= 0) {
    line.resize(static_cast<size_t>(needed) + 1);
    std::vsnprintf(&line[0], line.size(), format, args);
    line.resize(static_cast<size_t>(needed));
  }
  va_end(args);
  (*sink)(line);
}

void SetLogSinkForTesting(LogSink sink) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = sink ? std::make_shared<LogSink>(std::move(sink)) : nullptr;
}

}  // namespace qz_utility
