#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vantrel {

// What the daemon expects of its machine: the interface whose address the
// applications send from, and a route that leads through lo whatever the main
// table does not know the way to, so that a machine with a default route of its
// own keeps using that. And rules that refuse at once what nobody carries,
// behind the rules of the daemon.
//
// What stands already is left alone. What is made carries a mark of its maker,
// a number or a name, in the kernel itself: the interface its group, the
// address its metric, routes and rule their protocol, the refusing rules the
// name of their table, an interface that was only set up its alias. So nobody
// has to remember anything, not even one who was killed, and each network
// namespace tells by itself what was made in it.
class DeviceNetwork {
 public:
  enum class Maker {
    kLauncher,  // for as long as a launcher runs
    kSystem,    // until somebody says stop
  };

  explicit DeviceNetwork(Maker maker) : maker_(maker) {}

  // Makes what is missing. Throws std::runtime_error with the reason in one
  // line, and nothing that has its mark stands then. |warn| gets a line when
  // nothing will be refused while there is no tunnel; the network works
  // without that.
  void Make(const std::function<void(const std::string& text)>& warn) const;

  // Lets also those come to lo who ask for a route through the interface, as a
  // resolver does for the name server of an interface. The kernel forgets it
  // when the daemon changes the mask of the address: at its start and its end.
  // Why it failed; empty when it did not.
  std::string MakeRouteOfInterface(const std::string& destination) const;

  // Takes away what has the maker's mark, also that of one who was killed. What
  // could not be taken away, a line each.
  [[nodiscard]] std::vector<std::string> TakeAway() const;
  // The same with everything of it, whoever made it; only an interface of
  // somebody else stays, without the address.
  [[nodiscard]] std::vector<std::string> TakeAwayAll() const;

  // Whether anything with the maker's mark stands.
  bool HasAny() const;

 private:
  void MakeInterface() const;
  void MakeAddress() const;
  void MakeRoute() const;
  void MakeRule() const;
  void MakeRefusal(
      const std::function<void(const std::string& text)>& warn) const;

  const Maker maker_;
};

// Why the interface is not what the daemon expects, in words; empty when it is
// there, is up and has the address.
std::string FindFaultOfInterface();

}  // namespace vantrel
