#include "zlog.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>

struct zlog_category_s {
  std::string name;
};

namespace {

// Never destroyed: objects with static lifetime may still log from their
// destructors at process exit, through categories they fetched earlier.
std::map<std::string, std::unique_ptr<zlog_category_t>>& Categories() {
  static auto* categories = new std::map<std::string, std::unique_ptr<zlog_category_t>>();
  return *categories;
}

std::mutex& CategoriesMutex() {
  static auto* mutex = new std::mutex();
  return *mutex;
}

FILE*& Output() {
  static FILE* out = nullptr;
  return out;
}

}  // namespace

extern "C" {

zlog_category_t* zlog_get_category(const char* name) {
  if (name == nullptr) return nullptr;
  std::lock_guard<std::mutex> lock(CategoriesMutex());
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
  // Messages may carry whole records or SQL texts, so none is cut short.
  std::string message;
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length > 0) {
      message.resize(static_cast<size_t>(length) + 1);
      std::vsnprintf(message.data(), message.size(), format, args);
      message.resize(static_cast<size_t>(length));
    }
    va_end(args);
  }
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
