// Stories in the file expected/stories.txt: below each line with ">", which is given to the bridge,
// stands what it does. KOVA_WRITE_EXPECTED=1 writes that anew, to be reviewed as a difference.
//
//   > SENDER TYPE [FIELDS]        a message; FIELDS as protobuf's text has them
//   > radio KIND [TYPE [FIELDS]]  a notification; TYPE may be "access" or "chunk" with its numbers
//   > subscribe TOPIC, wait SECONDS, config MODE COLLABORATION STREAMING UPLOADING
//   > set WORD VALUE              what radio and bus answer from now on: see Set()
//   > file NAME CONTENT           in $FOLDER
//   > script [COMMAND]            the dock script does this; without a command there is none
//
// With "queue" before it, it is only queued; "run" runs that.

#include "Bench.h"
#include "Expected.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <iomanip>

namespace zelt::test {
namespace {

std::string g_script;  // stands for the network gadget script
std::string g_notes;   // where the child writes what it was asked to run, and its error output

// The alternative that is a message of this type.
Data DataFromText(const std::string& type, const std::string& fields) {
  Data data;
  const auto try_one = [&]<class T>(std::in_place_type_t<T>) {
    if constexpr (std::is_base_of_v<MessageLite, T>) {
      if (T().GetTypeName() == type) {
        data = FromText<T>(fields);
      }
    }
  };
  [&]<std::size_t... index>(std::index_sequence<index...>) {
    (try_one(std::in_place_type<std::variant_alternative_t<index, Data>>), ...);
  }(std::make_index_sequence<std::variant_size_v<Data>>());
  return data;
}

class Story {
 public:
  // Returns what the bridge does.
  std::string Tell(const std::string& command) {
    std::istringstream words(Replaced(command, "$FOLDER", folder_));
    std::string first;
    words >> first;
    const bool queue = first == "queue";
    if (queue) {
      words >> first;
    }
    try {
      Do(first, words);
      const Trace trace = queue ? bench_.Take() : bench_.Drain();
      return Notes() + Replaced(Text(trace), folder_, "$FOLDER");
    } catch (const std::runtime_error& error) {
      return Replaced(Text(bench_.Take()), folder_, "$FOLDER") + "  throws " + error.what() + '\n';
    }
  }

 private:
  static std::string Rest(std::istream& words) {
    std::string rest;
    std::getline(words >> std::ws, rest);
    return rest;
  }

  void Do(const std::string& first, std::istream& words) {
    std::string word;
    if (first == "radio") {
      std::uint32_t kind = 0;
      words >> kind >> word;
      bench_.Post(kind, Payload(word, words));
    } else if (first == "subscribe") {
      bench_.model->Ipc().Subscribe(Rest(words), "New");
    } else if (first == "wait") {
      bench_.Wait(std::stod(Rest(words)));
    } else if (first == "config") {
      bool collaboration = false;
      int streaming = 0;
      int uploading = 0;
      words >> std::quoted(word) >> collaboration >> streaming >> uploading;
      FakeConfig(word, collaboration, streaming, uploading);
    } else if (first == "set") {
      words >> word;
      Set(word, Rest(words));
    } else if (first == "file") {
      words >> word;
      bench_.folder.File(word, Rest(words));
    } else if (first == "script") {
      g_notes = bench_.folder.path / "notes";
      const std::string command = Rest(words);
      g_script = bench_.folder.path / "missing";
      if (!command.empty()) {
        g_script = bench_.folder.File("script", "#!/bin/sh\n" + command);
        std::filesystem::permissions(g_script, std::filesystem::perms::owner_all);
      }
    } else if (first != "run") {
      words >> word;
      ASSERT_TRUE(
          bench_.model->Ipc().Deliver(word, first, fake::WireFromText(word, Rest(words)), 9));
    }
  }

  static Data Payload(const std::string& type, std::istream& words) {
    int result = 0;
    if (type == "access") {
      orka::qrx::FileAccessResponse access;
      words >> result >> access.file_size >> access.file_name;
      access.result = static_cast<orka::qrx::Result>(result);
      return access;
    }
    if (type == "chunk") {
      orka::qrx::TransferDataResponse chunk;
      words >> result >> chunk.chunk_number;
      chunk.result = static_cast<orka::qrx::Result>(result);
      return chunk;
    }
    return type.empty() ? Data() : DataFromText(type, Rest(words));
  }

  void FakeConfig(const std::string& mode, bool collaboration, int streaming, int uploading) {
    bench_.config->SetWorkingMode(mode);
    bench_.config->SetCollaborationEnabled(collaboration);
    bench_.config->record.tetheredStreaming = static_cast<TetheredMode>(streaming);
    bench_.config->record.tetheredUploading = static_cast<TetheredMode>(uploading);
    const int locks = bench_.config->locks;
    bench_.context.ReadConfig();
    bench_.journal.Add(
        Line("locks", bench_.config->locks - locks, "at once", bench_.config->most_locks_held));
  }

  void Set(const std::string& word, const std::string& value) {
    if (word == "bus") {
      bench_.model->sends_work = value == "takes";
      bench_.model->publish_fails = value == "throws";
    } else if (word == "start") {
      answers_.start = value == "succeeds";
    } else if (word == "limit") {
      answers_.max_transfer_data_size = static_cast<std::uint16_t>(std::stoi(value));
    } else if (word == "descriptors") {
      answers_.device_descriptors = {{0x17, 3}};
    } else if (word == "connected") {
      answers_.radio_connected = value == "1";
    } else if (word == "reply") {
      answers_.inject = {true, {value.begin(), value.end()}};
    } else {
      FAIL() << "no such word: " << word;
    }
    bench_.radio->SetAnswers(answers_);
  }

  // What the dock script's child has written.
  std::string Notes() const {
    std::istringstream notes(bench_.folder.Read("notes"));
    std::filesystem::remove(bench_.folder.path / "notes");
    std::string text;
    for (std::string line; std::getline(notes, line);) {
      text += "  script: " + line + '\n';
    }
    return text;
  }

  Bench bench_;
  const std::string folder_ = bench_.folder.path;
  orka::fake::Answers answers_;
};

TEST(Story, EachGoesAsTheTextSays) {
  std::istringstream told(ReadExpected("stories.txt"));
  std::ostringstream text;
  std::unique_ptr<Story> story;
  for (std::string line; std::getline(told, line);) {
    if (!line.starts_with("  ")) {
      text << line << '\n';
    }
    if (line.starts_with("# ")) {
      story.reset();  // before the next one has its folder
      story = std::make_unique<Story>();
    } else if (line.starts_with("> ")) {
      text << story->Tell(line.substr(2));
    }
  }
  EXPECT_TRUE(story) << "no stories in " KOVA_EXPECTED;
  ExpectText("stories.txt", text.str());
}

}  // namespace
}  // namespace zelt::test

// The script's path is fixed; the child runs the test's own script instead.
extern "C" int execl(const char* path, const char* arg, ...) noexcept {
  using namespace zelt::test;
  va_list more;
  va_start(more, arg);
  const char* last = va_arg(more, const char*);
  va_end(more);
  const int notes = open(g_notes.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  std::array<char*, 2> arguments = {g_script.data(), nullptr};
  if (notes < 0 || dprintf(notes, "%s %s%s\n", path, arg, last == nullptr ? "" : " more") < 0) {
    _exit(2);
  }
  if (access(g_script.c_str(), F_OK) != 0) {
    dup2(notes, STDERR_FILENO);
  }
  return execv(g_script.c_str(), arguments.data());
}
