#include "tools/ctl/top_command.h"

#include <poll.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "support/steady_time.h"
#include "tools/ctl/dump_follower.h"
#include "tools/ctl/status_client.h"
#include "tools/ctl/top_json.h"
#include "tools/ctl/top_layout.h"
#include "tools/ctl/top_model.h"
#include "tools/ctl/top_screen.h"

namespace vantrel {
namespace {

// A launcher that lives says something within one interval, as a companion.
constexpr std::chrono::milliseconds kSilenceTime{3 * kStateIntervalMs};

// How often to look for one that has gone.
constexpr std::chrono::milliseconds kReconnectTime{kStateIntervalMs};

constexpr char kSilent[] = "nothing comes from the status socket";

// What is shown of the last one that has said something.
class TopModels {
 public:
  TopModel& GetLauncher() { return launcher_; }
  DevicesModel& GetCompanion() { return companion_; }
  // Says which of them it is.
  void SetCompanion(bool is_companion) { is_companion_ = is_companion; }

  void Disconnect() {
    launcher_.Disconnect();
    companion_.Disconnect();
  }
  size_t GetRateCount() const {
    return is_companion_ ? companion_.GetHistory().size()
                         : launcher_.GetHistory().size();
  }
  std::vector<TextLine> LayOut(const top_view_t& view) const {
    return is_companion_ ? LayOutTop(companion_, view)
                         : LayOutTop(launcher_, view);
  }
  std::string ToJson(TopSort sort, const std::string& note) const {
    return is_companion_ ? TopToJson(companion_, sort, note)
                         : TopToJson(launcher_, sort, note);
  }

 private:
  TopModel launcher_;
  DevicesModel companion_;
  bool is_companion_ = false;
};

// What the models show, from the status socket and, if wanted, from a daemon's
// log. Connects again when the other end has gone.
class TopSource {
 public:
  // Throws std::system_error when nobody listens, or there is no log.
  explicit TopSource(const top_options_t& options)
      : path_(options.status_socket), client_(StatusClient(path_)) {
    if (!options.log.empty()) dumps_.emplace(options.log);
  }

  const TopModels& GetModels() const { return models_; }
  const std::string& GetNote() const { return note_; }

  // To wait for, or -1.
  int GetFd() const { return client_ ? client_->GetFd() : -1; }
  std::chrono::milliseconds GetWaitTime() const {
    return client_ ? kSilenceTime : kReconnectTime;
  }

  // To be called after the wait. Whether there is something new to show.
  bool Work(bool is_readable) {
    if (!client_) {
      Connect();
      return false;
    }
    if (!is_readable) {
      note_ = kSilent;
      return true;
    }
    const bool is_open = client_->Receive();
    bool is_new = !is_open;
    while (const auto state = client_->Next()) {
      std::visit([this](const auto& one) { Take(one); }, *state);
      is_new = true;
    }
    if (!is_open) {
      client_.reset();
      models_.Disconnect();
    }
    return is_new;
  }

 private:
  void Connect() {
    try {
      client_.emplace(path_);
    } catch (const std::system_error&) {
      // Not there yet.
    }
  }

  void Take(const companion_state_t& state) {
    models_.SetCompanion(true);
    models_.GetCompanion().Update(state);
    note_ = dumps_ ? "a companion shows its streams without --log" : "";
  }

  void Take(const launch_state_t& state) {
    models_.SetCompanion(false);
    TopModel& model = models_.GetLauncher();
    const auto& last = model.GetState();
    const bool is_other_daemon = last && last->starts != state.starts;
    model.Update(state);
    note_.clear();
    if (!dumps_) return;
    if (is_other_daemon) dumps_->Forget();
    if (auto dump = dumps_->Read()) {
      model.SetDump(std::move(*dump), dumps_->GetOwners());
    }
    if (state.phase == launch_state_t::Phase::kRunning) note_ = dumps_->Ask();
  }

  const std::string path_;
  std::optional<StatusClient> client_;  // none while nobody listens
  std::optional<DumpFollower> dumps_;
  TopModels models_;
  std::string note_;
};

// Waits for the source and, with |has_keys|, for standard input. False when
// that has ended.
bool Wait(const TopSource& source, bool has_keys, bool* is_readable,
          std::chrono::milliseconds time) {
  pollfd fds[] = {{source.GetFd(), POLLIN, 0},
                  {has_keys ? STDIN_FILENO : -1, POLLIN, 0}};
  const int count = poll(fds, 2, static_cast<int>(time.count()));
  *is_readable = count > 0 && fds[0].revents != 0;
  return count <= 0 || (fds[1].revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
}

std::string ToText(const std::vector<TextLine>& lines) {
  std::string text;
  for (const TextLine& line : lines) {
    std::string whole;
    for (const text_span_t& span : line) whole += span.text;
    whole.erase(whole.find_last_not_of(' ') + 1);
    text += whole + "\n";
  }
  return text;
}

void Print(const TopSource& source, bool is_json) {
  top_view_t view;
  view.note = source.GetNote();
  const std::string text =
      is_json ? source.GetModels().ToJson(view.sort, view.note) + "\n"
              : ToText(source.GetModels().LayOut(view));
  fputs(text.c_str(), stdout);
  if (fflush(stdout) != 0) throw std::runtime_error("cannot write");
}

int RunForScript(const top_options_t& options) {
  TopSource source(options);
  // The first answer of the daemon comes after the first state; a rate needs
  // two.
  const size_t needed_rates = options.log.empty() ? 1 : 2;
  while (true) {
    bool is_readable = false;
    Wait(source, false, &is_readable, source.GetWaitTime());
    if (!source.Work(is_readable)) continue;
    if (options.is_once) {
      if (source.GetFd() < 0)
        throw std::runtime_error("the other end has gone");
      if (!is_readable) throw std::runtime_error(kSilent);
      if (source.GetModels().GetRateCount() < needed_rates) continue;
    }
    Print(source, options.is_json);
    if (options.is_once) return 0;
  }
}

// The program on a terminal.
class TopDisplay {
 public:
  explicit TopDisplay(const top_options_t& options) : source_(options) {}

  void Run() {
    auto due = GetSteadyTime() + source_.GetWaitTime();
    while (true) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(
          std::max(due - GetSteadyTime(), SteadyTime::duration(0)));
      bool is_readable = false;
      if (!Wait(source_, true, &is_readable, left)) return;
      bool is_new = false;
      if (is_readable || GetSteadyTime() >= due) {
        is_new = source_.Work(is_readable) && !is_paused_;
        due = GetSteadyTime() + source_.GetWaitTime();
      }
      for (int key; (key = screen_.GetKey()) != TopScreen::kNoKey;) {
        if (key == 'q') return;
        TakeKey(key);
        is_new = true;
      }
      if (is_new) Show();
    }
  }

 private:
  void TakeKey(int key) {
    switch (key) {
      case 'p':
        is_paused_ = !is_paused_;
        shown_ = source_.GetModels();
        break;
      case 'f':
        Fold();
        break;
      case 'd':
        sort_ = TopSort::kDown;
        break;
      case 'u':
        sort_ = TopSort::kUp;
        break;
      case 't':
        sort_ = TopSort::kTotal;
        break;
      case 'n':
        sort_ = TopSort::kName;
        break;
      default:
        break;
    }
  }

  // One level less, and after devices alone all of them again.
  void Fold() {
    switch (depth_) {
      case TopDepth::kStreams:
        depth_ = TopDepth::kApplications;
        break;
      case TopDepth::kApplications:
        depth_ = TopDepth::kDevices;
        break;
      case TopDepth::kDevices:
        depth_ = TopDepth::kStreams;
        break;
    }
  }

  void Show() {
    top_view_t view;
    view.columns = screen_.GetColumns();
    view.lines = screen_.GetLines();
    view.sort = sort_;
    view.depth = depth_;
    view.is_paused = is_paused_;
    view.has_keys = true;
    view.has_blocks = screen_.HasBlocks();
    view.note = source_.GetNote();
    screen_.Show((is_paused_ ? shown_ : source_.GetModels()).LayOut(view));
  }

  TopSource source_;  // before the screen: its failures are to be read
  TopScreen screen_;
  TopModels shown_;  // while paused
  TopSort sort_ = TopSort::kDown;
  TopDepth depth_ = TopDepth::kStreams;
  bool is_paused_ = false;
};

}  // namespace

int RunTop(const top_options_t& options) {
  if (options.is_once || options.is_json) return RunForScript(options);
  TopDisplay(options).Run();
  return 0;
}

}  // namespace vantrel
