#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "companion/flow_scheduler.h"
#include "companion/intrusive_list.h"
#include "companion/priority.h"
#include "companion/upload_scheduler.h"
#include "support/steady_time.h"

namespace vantrel {

// What an application has used of a link since the companion knows it. Bytes
// are payload alone. They count when they are handed on: those to the device
// when they go onto the link, those from it when they have come.
struct application_counts_t {
  uint64_t bytes_to_device = 0;
  uint64_t bytes_from_device = 0;
  uint64_t streams_opened = 0;  // also those that reached no remote
  uint64_t streams_denied = 0;  // by a rule, at first or when they were open
  uint64_t datagrams_to_device = 0;
  uint64_t datagrams_from_device = 0;
  // Either way, by a queue or a limit, or refused on their way to a remote.
  uint64_t datagrams_dropped = 0;
};

void Add(const application_counts_t& counts, application_counts_t* sum);

// What the companion knows of one application of one device. Whoever moves its
// bytes counts them in GetCounts().
class Application {
 public:
  // One stream of it. The application outlives that.
  class Stream : private IntrusiveList<Stream>::Place {
   public:
    Stream(Application& application, SteadyTime begin);
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream();

    // The device has it open no longer; it may still deliver its rest.
    void Close();
    SteadyTime GetBegin() const { return begin_; }

   private:
    friend class IntrusiveList<Stream>;
    Application& application_;
    const SteadyTime begin_;
  };

  // Longer than any name that a device's packages may have.
  static constexpr size_t kMaxNameBytes = 256;

  // Without |uid| it stands for all whose owner is not known.
  explicit Application(std::optional<uint32_t> uid) : uid_(uid) {}
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  ~Application();

  std::optional<uint32_t> GetUid() const { return uid_; }
  // As the device told it, any bytes; empty: it has none, or was not told yet.
  const std::string& GetPackageName() const { return package_name_; }
  bool IsNameTold() const { return is_name_told_; }
  // What is too long for a name is cut off; without |name| it has none, if it
  // had none before. False when nothing has changed by that.
  [[nodiscard]] bool SetPackageName(std::string name);
  // For a log line.
  std::string Describe() const;

  // Where its flows of |priority| wait for the link.
  FlowScheduler::Group& GetGroup(Priority priority) {
    return GetGroups(priority).flows;
  }
  // And where those that come from it wait for their acknowledgements.
  UploadScheduler::Group& GetUploads(Priority priority) {
    return GetGroups(priority).uploads;
  }
  application_counts_t& GetCounts() { return counts_; }
  const application_counts_t& GetCounts() const { return counts_; }
  // Those that are open, and those that only deliver their rest.
  size_t GetStreamCount() const { return stream_count_; }
  size_t GetOpenStreamCount() const { return open_stream_count_; }
  // When the oldest of the open streams began; none when none is open.
  std::optional<SteadyTime> GetOpenSince() const;

 private:
  struct groups_t {
    explicit groups_t(Priority priority) : flows(priority), uploads(priority) {}
    FlowScheduler::Group flows;
    UploadScheduler::Group uploads;
  };
  // They are made when they are asked for: most have one priority only.
  groups_t& GetGroups(Priority priority);

  const std::optional<uint32_t> uid_;
  std::string package_name_;
  std::array<std::unique_ptr<groups_t>, kPriorities> groups_;
  bool is_name_told_ = false;
  application_counts_t counts_;
  size_t stream_count_ = 0;
  size_t open_stream_count_ = 0;
  IntrusiveList<Stream> open_streams_;  // the oldest first
};

}  // namespace vantrel
