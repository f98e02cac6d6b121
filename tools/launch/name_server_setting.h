#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vantrel {

// Gives the device's resolver the name server of the companion, in the way that
// the device has for it: resolvconf(8), of either kind, or resolvectl(1). They
// keep what others have set and restore it. Both file what they were told under
// a name, so one who comes after a launcher that was killed finds it. Where
// there is neither, a file that somebody else keeps is not written: a line says
// what to do.
class NameServerSetting {
 public:
  // |say| gets lines for a person. Nothing that goes wrong here stops a link.
  explicit NameServerSetting(std::function<void(const std::string& text)> say)
      : say_(std::move(say)) {}

  // While a tunnel stands: names that the link itself needs are then still
  // looked up as before.
  void Give();
  // After each start of the daemon: what that takes away from a resolver with
  // servers for each interface.
  void HandleStart();
  // Does nothing where none was given.
  void TakeBack();
  // What a launcher that was killed has left.
  void TakeBackLeftOver();

 private:
  enum class Tool { kNone, kResolvconf, kResolvectl };

  // What this device has.
  static Tool FindTool();
  // Why it failed; empty when it did not.
  static std::string GiveBy(Tool tool);
  static std::string TakeBackBy(Tool tool);
  // What to do where names would not be looked up over the tunnel; |failure| is
  // what has just failed, empty where nothing has.
  void Hint(const std::string& failure) const;

  const std::function<void(const std::string& text)> say_;
  Tool given_by_ = Tool::kNone;
};

}  // namespace vantrel
