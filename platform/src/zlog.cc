#include "zlog.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

struct zlog_category_s {
  std::string name;
};

namespace {

std::map<std::string, std::unique_ptr<zlog_category_t>>& Categories() {
  static std::map<std::string, std::unique_ptr<zlog_category_t>> categories;
  return categories;
}

FILE*& Output() {
  static FILE* out = nullptr;
  return out;
}

}  // namespace

extern "C" {

zlog_category_t* zlog_get_category(const char* name) {
  if (name == nullptr) return nullptr;
  auto& slot = Categories()[name];
  if (!slot) slot.reset(new zlog_category_t{name});
  return slot.get();
}

const char* zlog_category_name(const zlog_category_t* category) {
  return category == nullptr ? "-" : category->name.c_str();
}

void zlog_set_output(FILE* out) { Output() = out; }

void zlog(zlog_category_t* category, const char* file, size_t filelen, const char* func,
          size_t funclen, long line, int level, const char* format, ...) {
  // Build the whole line first so that it reaches the stream in one write.
  char message[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof(message), format == nullptr ? "" : format, args);
  va_end(args);
  std::string text = zlog_category_name(category);
  text += ' ';
  text += std::to_string(level);
  text += ' ';
  if (file != nullptr) text.append(file, filelen);
  text += ':';
  text += std::to_string(line);
  text += ' ';
  if (func != nullptr) text.append(func, funclen);
  text += ": ";
  text += message;
  text += '\n';
  FILE* out = Output() == nullptr ? stderr : Output();
  std::fwrite(text.data(), 1, text.size(), out);
  std::fflush(out);
}

}  // extern "C"
