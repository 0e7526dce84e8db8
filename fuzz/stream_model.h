// The rules of a stream on the bytes of a file, without blocks, one character at a time: what the
// fuzz targets compare psp_stream with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "psp.h"

namespace fuzz {

struct StreamModel {
  std::string file;
  bool readable = true;
  uint32_t width = 1, mark_length = 0;
  bool big_endian = false;
  size_t position = 0;
  std::vector<int32_t> pushed;
  uint32_t pending = 0, value = 0;
  uint32_t line_size = 0;  // of the line buffer, 0 before there is one
  bool ended = false;      // a byte was asked for behind the last one

  StreamModel(std::string bytes, const std::string &mode, uint32_t wanted_width) : file(bytes) {
    if (mode[0] == 'w') file.clear();
    if (mode[0] != 'r') {
      readable = mode.find('+') != std::string::npos;
      width = wanted_width;
      position = file.size();
      mark_length = width == 2 ? 2 : 0;
      if (width == 2 && file.empty()) write("\xFF\xFE");
      return;
    }
    for (const std::string mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
      if (file.substr(0, mark.size()) != mark) continue;
      position = mark_length = static_cast<uint32_t>(mark.size());
      width = mark_length == 2 ? 2 : 1;
      big_endian = mark[0] == '\xFE';
    }
  }

  void write(const std::string &bytes) {
    if (file.size() < position + bytes.size()) file.resize(position + bytes.size());
    file.replace(position, bytes.size(), bytes);
    position += bytes.size();
  }
  int byte() {
    ended = !readable || position >= file.size();
    if (ended) return -1;
    return static_cast<unsigned char>(file[position++]);
  }
  int unit() {
    const int first = byte();
    const int second = first < 0 ? -1 : byte();
    if (second < 0) return -1;
    return big_endian ? first * 256 + second : second * 256 + first;
  }
  bool push(int32_t c) {
    if (pushed.size() == 20) return false;
    pushed.push_back(c);
    return true;
  }
  int32_t getc() {
    if (!pushed.empty()) {
      const int32_t c = pushed.back();
      pushed.pop_back();
      return c;
    }
    int c = width == 1 ? byte() : unit();
    if (width == 2 && c >= 0xDC00 && c <= 0xDFFF) return '.';
    if (width == 2 && c >= 0xD800 && c <= 0xDBFF) {
      const int low = unit();
      c = low < 0 ? -1 : 0x10000 + (c & 0x3FF) * 1024 + (low & 0x3FF);
    }
    if (width == 2 && c >= 0x80) {
      const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
      for (int i = 0; i < more; ++i) push(0x80 | ((c >> (6 * i)) & 0x3F));
      c = (0xFF00 >> (more + 1) & 0xFF) | (c >> (6 * more));
    }
    if (c == '\r') {
      const int32_t next = getc();
      if (next == '\n') return next;
      push(next);
    }
    return static_cast<signed char>(c);
  }
  std::string gets(size_t room, bool *any) {
    std::string text;
    while (text.size() < room && (text.empty() || text.back() != '\n')) {
      const int32_t c = getc();
      if (c == -1) break;
      text += static_cast<char>(c);
    }
    *any = !text.empty();
    return text;
  }
  // The line comes in parts, as the buffer grows. A byte FF, which reads as the end, ends the line
  // only where it would begin a part.
  std::string get_line(bool *any) {
    uint32_t size = line_size != 0 ? line_size : 100;
    std::string text = gets(size - 1, any);
    if (!*any) return text;
    for (bool more = true; more && text.back() != '\n';) {
      size += 100;
      text += gets(size - 1 - text.size(), &more);
    }
    line_size = size;
    return text;
  }
  bool put_byte(unsigned char c) {
    const auto put_unit = [this](uint32_t u) {
      write({static_cast<char>(u), static_cast<char>(u >> 8)});
    };
    if (width == 1) return write({static_cast<char>(c)}), true;
    if (pending == 0) {
      if (c < 0x80) return put_unit(c), true;
      if (c < 0xC2 || c > 0xF4) return false;
      pending = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
      value = c & (0x3F >> pending);
      return true;
    }
    if (c < 0x80 || c > 0xBF) return false;
    value = value * 64 + (c & 0x3F);
    if (--pending != 0) return true;
    if (value <= 0xFFFF) return put_unit(value), true;
    put_unit(0xD800 | ((value - 0x10000) >> 10 & 0x3FF));
    put_unit(0xDC00 | (value & 0x3FF));
    return true;
  }
  bool putc(char c) {
    if (c == '\n') put_byte('\r');
    return put_byte(static_cast<unsigned char>(c));
  }
  int32_t puts(const std::string &text) {
    for (const char c : text) {
      if (!putc(c)) return -1;
    }
    return static_cast<int32_t>(text.size());
  }
  psp_status seek(int32_t offset, int32_t origin) {
    const auto base = origin == 0 ? mark_length : origin == 1 ? position : file.size();
    const int64_t place = static_cast<int64_t>(base) + offset;
    if (origin > 2 || place < 0) return PSP_FAILED;
    position = static_cast<size_t>(place);
    return PSP_OKAY;
  }
};

}  // namespace fuzz
