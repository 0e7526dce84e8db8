// Streams: a script of calls on a file of arbitrary bytes gives, call by call, what the model
// gives, and leaves the file that the model leaves.
//
// An input is a mode, a width, a number of calls, how often the file's bytes are repeated, four
// bytes for each call, and the file's bytes. Calls that need more bytes take of the file's.
#include "fuzz.h"
#include "psp.h"
#include "stream_model.h"

namespace {

using fuzz::StreamModel;

class Script {
 public:
  Script(psp_stream *stream, StreamModel *model) : stream_(stream), model_(*model) {}
  ~Script() { psp_freeMem(line_, nullptr); }
  Script(const Script &) = delete;
  Script &operator=(const Script &) = delete;

  // One call, made on both.
  void call(fuzz::Input *input, bool writes) {
    switch (input->below(writes ? 10 : 7)) {
      case 0:
        return get_characters(input->below(64));
      case 1:
        return get_text(input->below(200));
      case 2:
        return get_text(input->below(3000));
      case 3:
        return get_line();
      case 4: {
        const int32_t c = static_cast<int32_t>(input->below(300)) - 1;
        FUZZ_EXPECT(psp_fungetc(c, stream_) == (model_.push(c) ? c : -1));
        return;
      }
      case 5:
        FUZZ_EXPECT(psp_fflush(stream_) == (model_.pending != 0 ? -1 : 0));
        return;
      case 6:
        return seek(static_cast<int32_t>(input->below(6000)) - 3000, input->below(4));
      case 7: {
        const auto c = static_cast<char>(input->byte());
        FUZZ_EXPECT(psp_fputc(c, stream_) == (model_.putc(c) ? 1 : 0));
        return;
      }
      default:
        return put_text(input);
    }
  }

 private:
  void get_characters(uint32_t count) {
    for (; count != 0; --count) FUZZ_EXPECT(psp_fgetc(stream_) == model_.getc());
  }

  void get_text(uint32_t size) {
    std::string buffer(size, '#');
    char *const text = psp_fgets(buffer.data(), static_cast<int32_t>(size), stream_);
    if (size == 0) {
      FUZZ_EXPECT(text == nullptr);
      return;
    }
    bool any = false;
    const std::string expected = model_.gets(size - 1, &any) + '\0';
    FUZZ_EXPECT((text != nullptr) == (any || size == 1));
    if (text != nullptr) FUZZ_EXPECT(buffer.compare(0, expected.size(), expected) == 0);
  }

  void get_line() {
    bool any = false;
    const std::string expected = model_.get_line(&any) + '\0';
    const char *text = psp_fGetLine(stream_, &line_, &line_size_);
    FUZZ_EXPECT((text != nullptr) == any);
    if (!any) return;
    FUZZ_EXPECT(text == line_ && line_size_ == model_.line_size);
    FUZZ_EXPECT(std::string(line_, expected.size()) == expected);
  }

  // The numbers stay so small that a gap fills in no time; the place behind the end is not far off.
  void seek(int32_t offset, uint32_t origin) {
    const auto from = static_cast<int32_t>(origin);
    if (origin == 1 && model_.position > 20000 && offset > 0) offset = -offset;
    FUZZ_EXPECT(psp_fseek(stream_, offset, from) == model_.seek(offset, from));
  }

  // Pieces of the input itself, over and over, so that short inputs cross the borders of blocks.
  void put_text(fuzz::Input *input) {
    const uint32_t how = input->byte();
    const std::string piece = input->text(100);
    std::string text;
    for (uint32_t count = how % 32; count != 0; --count) text += piece;
    if (how < 128) {
      FUZZ_EXPECT(psp_fputs(text.c_str(), stream_) == model_.puts(text));
    } else {
      const int32_t result = psp_fprintf(stream_, "<%s>%d\n", text.c_str(), 7);
      FUZZ_EXPECT(result == model_.puts("<" + text + ">7\n"));
    }
  }

  psp_stream *stream_;
  StreamModel &model_;
  char *line_ = nullptr;
  uint32_t line_size_ = 0;
};

}  // namespace

void fuzz::run(Input input) {
  constexpr const char *kModes[] = {"r", "r+", "w", "w+", "a", "a+"};
  const std::string mode = kModes[input.below(6)];
  const uint32_t width = 1 + input.below(2);
  const size_t calls = input.below(64), repeated = 1 + input.below(8);
  // The calls stand before the file, so that the file reads as it is in an editor.
  Input script = input;
  for (size_t count = 0; count < calls * 4; ++count) input.byte();
  std::string bytes, once = input.rest();
  for (size_t count = 0; count < repeated; ++count) bytes += once;

  const std::string name = folder() + "/file";
  write_file(name, bytes);
  psp_stream *stream = psp_fopenEx(name.c_str(), mode.c_str(), width, PSP_FILE_NOSYNC);
  FUZZ_EXPECT(stream != nullptr);
  StreamModel model(bytes, mode, width);
  {
    Script made(stream, &model);
    for (size_t count = 0; count < calls; ++count) made.call(&script, mode != "r");
  }
  psp_fclose(stream);
  FUZZ_EXPECT(read_file(name) == model.file);
}
