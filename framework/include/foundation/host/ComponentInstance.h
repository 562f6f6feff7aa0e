// ComponentInstance: the one object a bundle hands its host per declared component. The host
// makes it through the bundle's NewInstance_<class> entry point, activates it, asks it for
// the service objects it offers by interface name, and at unload deactivates it and gives it
// back to the bundle's DeleteInstance_<class> entry point (never `delete` in the host: the
// object belongs to the bundle's heap and code).
//
// It stands in for the component instance of the service runtime's Declarative Services, of
// which the host needs only this much.
// Ownership: the host holds the pointer between NewInstance_ and DeleteInstance_; the service
// objects it returns are shared with whoever asked for them.
// Threads: the host calls activate, getInterface and deactivate from the thread that loads
// or unloads the bundle, never concurrently; implementations need no lock for that.
#pragma once

#include <memory>
#include <string>

namespace foundation::host {

class ComponentInstance {
 public:
  virtual ~ComponentInstance() = default;
  // Makes the component's implementation object. May throw; the host then unloads the bundle.
  virtual void activate() = 0;
  // Drops the implementation object. Must not throw.
  virtual void deactivate() noexcept = 0;
  // The service object offered under the interface's full C++ name (as the manifest's
  // "service.interfaces" spells it), or null when the component offers no such interface or
  // is not active. The pointer is to the interface's subobject: cast it back with
  // std::static_pointer_cast<Interface>.
  virtual std::shared_ptr<void> getInterface(const std::string& interfaceName) = 0;
};

}  // namespace foundation::host
