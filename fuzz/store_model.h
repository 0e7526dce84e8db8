// A model of the in-memory store: operations of its choice on the store and on a map of names to
// bytes, with several handles a file, removals of open files, and an iteration under way. Every
// result is the same.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "psp.h"

namespace fuzz {

class StoreModel {
 public:
  // below(n): the next choice, a number below n, which is at most 65536. expect: what must hold.
  StoreModel(std::function<uint32_t(uint32_t)> below,
             std::function<void(bool, const char *)> expect)
      : below(std::move(below)), expect(std::move(expect)) {
    for (const char *folder : kFolders) {
      psp_fileValidateEx((std::string(folder) + "x").c_str(), kMemory, nullptr);
    }
  }

  void step() {
    static constexpr void (StoreModel::*kOperations[])() = {
        &StoreModel::open,   &StoreModel::open,  &StoreModel::close,    &StoreModel::remove,
        &StoreModel::rename, &StoreModel::stat,  &StoreModel::set_size, &StoreModel::seek,
        &StoreModel::read,   &StoreModel::read,  &StoreModel::read,     &StoreModel::write,
        &StoreModel::write,  &StoreModel::write, &StoreModel::iterate,  &StoreModel::iterate};
    (this->*kOperations[below(std::size(kOperations))])();
  }

  // Closes everything, and removes all files.
  void finish() {
    while (!handles_.empty()) close();
    if (iteration_ != nullptr) psp_pathClose(iteration_);
    for (size_t folder = 0; folder < kFolderCount; ++folder) {
      check_listing(folder);
      for (const auto &file : folders_[folder]) {
        const std::string path = kFolders[folder] + file.first;
        expect(psp_fileRemoveEx(path.c_str(), kMemory) == PSP_OKAY, "a last removal");
      }
    }
  }

 private:
  static constexpr uint16_t kMemory = PSP_FILE_MEMORY;
  static constexpr const char *kFolders[] = {"\\", "\\a\\", "\\a\\b\\", "\\Mixed\\"};
  static constexpr size_t kFolderCount = std::size(kFolders);

  struct File {
    std::string bytes;
    bool was_written = false;
  };
  struct Handle {
    PSP_FH file;
    std::shared_ptr<File> model;
    uint64_t position;
  };
  using Folder = std::map<std::string, std::shared_ptr<File>>;  // by name in lower case

  static std::string lower(std::string name) {
    for (char &c : name) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return name;
  }

  struct Name {
    size_t folder;
    std::string last;  // as it is spelled this time
    std::string path() const { return kFolders[folder] + last; }
    std::string key() const { return lower(last); }
  };

  // One of a few hundred, some long, in changing case.
  Name name() {
    std::string last = "f" + std::to_string(below(60));
    if (below(8) == 0) last.append(20 + last.back() % 8, 'n');
    if (below(4) == 0) last[0] = 'F';
    return {below(kFolderCount), last};
  }
  Folder &folder_of(const Name &name) { return folders_[name.folder]; }
  std::shared_ptr<File> find(const Name &name) {
    const auto found = folder_of(name).find(name.key());
    return found != folder_of(name).end() ? found->second : nullptr;
  }
  Handle *handle() {
    return handles_.empty() ? nullptr : &handles_[below(static_cast<uint32_t>(handles_.size()))];
  }

  // Small places mostly, around the borders of segments often, far ones now and then.
  uint64_t place() {
    static constexpr uint32_t kBorders[] = {4096, 16384, 65536, 262144, 1048576};
    const uint32_t choice = below(16);
    if (choice < 9) return below(6000);
    return kBorders[choice < 15 ? below(4) : 4] - 20 + below(40);
  }

  void open() {
    if (handles_.size() > 24) return close();
    const Name which = name();
    const uint32_t flags = (below(2) != 0 ? PSP_OPEN_CREATE : 0u) |
                           (below(8) == 0 ? PSP_OPEN_TRUNCATE : 0u) | PSP_OPEN_READWRITE;
    std::shared_ptr<File> model = find(which);
    PSP_FH file = psp_fileOpen(which.path().c_str(), flags, kMemory);
    const bool creates = (flags & (PSP_OPEN_CREATE | PSP_OPEN_TRUNCATE)) != 0;
    expect((file != nullptr) == (model != nullptr || creates), "an open");
    if (file == nullptr) return;
    if (model == nullptr) model = folder_of(which)[which.key()] = std::make_shared<File>();
    if ((flags & PSP_OPEN_TRUNCATE) != 0) model->bytes.clear();
    handles_.push_back({file, model, 0});
  }

  void close() {
    Handle *which = handle();
    if (which == nullptr) return;
    psp_fileClose(which->file);
    *which = handles_.back();
    handles_.pop_back();
  }

  void remove() {
    const Name which = name();
    const psp_status expected = find(which) != nullptr ? PSP_OKAY : PSP_NOTFOUND;
    expect(psp_fileRemoveEx(which.path().c_str(), kMemory) == expected, "a removal");
    folder_of(which).erase(which.key());
  }

  void rename() {
    const Name from = name();
    const Name to = {from.folder, name().last};
    psp_status expected = PSP_OKAY;
    if (find(to) != nullptr) expected = PSP_FAILED;
    if (find(from) == nullptr) expected = PSP_NOTFOUND;
    const psp_status status =
        psp_fileRenameEx(from.path().c_str(), kMemory, to.path().c_str(), kMemory);
    expect(status == expected, "a rename");
    if (expected != PSP_OKAY) return;
    folder_of(to)[to.key()] = find(from);
    folder_of(from).erase(from.key());
  }

  void stat() {
    const Name which = name();
    const std::string path = which.path();
    const std::shared_ptr<File> model = find(which);
    uint32_t is_directory = 7;
    const int32_t found = psp_fileValidateEx(path.c_str(), kMemory, &is_directory);
    expect(found == (model != nullptr ? 1 : 0), "whether it exists");
    expect(is_directory == (model != nullptr ? 0u : 7u), "the flag");
    const auto length = static_cast<int64_t>(model != nullptr ? model->bytes.size() : 0);
    expect(psp_fileLengthStat(path.c_str(), kMemory) == length, "the length by name");
    const bool has_time = psp_fileModTimeStat(path.c_str(), kMemory) != 0;
    expect(has_time == (model != nullptr && model->was_written), "the time of the last write");
  }

  void set_size() {
    Handle *which = handle();
    if (which == nullptr) return;
    const uint64_t size = place();
    expect(psp_fileSetSize(which->file, static_cast<int64_t>(size)) == 0, "a new size");
    which->model->bytes.resize(size);
  }

  void seek() {
    Handle *which = handle();
    if (which == nullptr) return;
    const uint64_t length = which->model->bytes.size();
    const auto whence = static_cast<int32_t>(below(4));
    const int64_t offset = static_cast<int64_t>(place()) * (whence == 0 ? 1 : -1);
    const uint64_t base = whence == 0 ? 0 : whence == 1 ? which->position : length;
    const uint64_t target = base + static_cast<uint64_t>(offset);
    const bool works = whence < 3 && target <= length;
    expect((psp_fileSeek(which->file, offset, whence) == PSP_OKAY) == works, "a seek");
    if (works) which->position = target;
  }

  void read() {
    Handle *which = handle();
    if (which == nullptr) return;
    const std::string &bytes = which->model->bytes;
    const bool is_placed = below(2) != 0;
    const uint64_t offset = is_placed ? place() : which->position;
    const uint32_t count = 1 + below(below(4) == 0 ? 30'000 : 300);
    buffer_.resize(count);
    const int32_t done = is_placed ? psp_fileSeekRead(which->file, static_cast<int64_t>(offset),
                                                      buffer_.data(), count)
                                   : psp_fileRead(which->file, buffer_.data(), count);
    const uint64_t left = offset < bytes.size() ? bytes.size() - offset : 0;
    const auto expected = static_cast<int32_t>(std::min<uint64_t>(left, count));
    expect(done == expected, "the bytes read");
    if (done <= 0) return;
    expect(memcmp(bytes.data() + offset, buffer_.data(), static_cast<size_t>(done)) == 0, "bytes");
    if (!is_placed) which->position += static_cast<uint64_t>(done);
  }

  void write() {
    Handle *which = handle();
    if (which == nullptr) return;
    const bool is_placed = below(2) != 0;
    const uint64_t offset = is_placed ? place() : which->position;
    const uint32_t count = 1 + below(below(4) == 0 ? 9'000 : 300);
    buffer_.assign(count, static_cast<char>('a' + below(26)));
    const int32_t done = is_placed ? psp_fileSeekWrite(which->file, static_cast<int64_t>(offset),
                                                       buffer_.data(), count)
                                   : psp_fileWrite(which->file, buffer_.data(), count);
    expect(done == static_cast<int32_t>(count), "the bytes written");
    std::string &bytes = which->model->bytes;
    if (bytes.size() < offset + count) bytes.resize(offset + count);
    bytes.replace(offset, count, buffer_);
    which->model->was_written = true;
    if (!is_placed) which->position += count;
  }

  // The first name behind that one, in the order of the model; "" at the end.
  std::string next_name(size_t folder, const std::string &behind) const {
    const auto next = folders_[folder].upper_bound(behind);
    return next != folders_[folder].end() ? next->first : "";
  }

  // The next name of a file that an iteration gives, in lower case; "" at the end.
  static std::string next_found(psp_pathIter *names) {
    uint32_t is_directory = 0;
    while (const char *found = psp_pathNext(names, &is_directory)) {
      if (is_directory == 0) return lower(found);
    }
    return "";
  }

  void iterate() {
    if (iteration_ == nullptr) {
      iterated_ = below(kFolderCount);
      iteration_ = psp_pathOpenEx(kFolders[iterated_], kMemory, "*");
      expect(iteration_ != nullptr, "an iteration");
      last_.clear();
      return;
    }
    const std::string found = next_found(iteration_);
    expect(found == next_name(iterated_, last_), "the next name");
    last_ = found;
    if (!found.empty()) return;
    psp_pathClose(iteration_);
    iteration_ = nullptr;
  }

  void check_listing(size_t folder) {
    psp_pathIter *names = psp_pathOpenEx(kFolders[folder], kMemory, "*");
    expect(names != nullptr, "a last iteration");
    std::string last;
    do {
      const std::string found = next_found(names);
      expect(found == next_name(folder, last), "a name at last");
      last = found;
    } while (!last.empty());
    psp_pathClose(names);
  }

  const std::function<uint32_t(uint32_t)> below;
  const std::function<void(bool, const char *)> expect;
  Folder folders_[kFolderCount];
  std::vector<Handle> handles_;
  std::string buffer_;
  psp_pathIter *iteration_ = nullptr;
  size_t iterated_ = 0;
  std::string last_;
};

}  // namespace fuzz
