// Smallest program built against an installed Tunnel: it includes a framework
// header from the installed tree and needs the installed library to link
// (RefCounted's destructor lives there). C++20 must come with the target.
#include <cstdio>

#include "framework/Vela/Ptr.h"

static_assert(__cplusplus >= 202002L, "Tunnel::framework must carry C++20 to its users");

namespace {

int destroyed = 0;

class Probe : public Vela::RefCounted {
 public:
  explicit Probe(int value) : value_(value) {}
  int value() const { return value_; }

 private:
  ~Probe() override { ++destroyed; }

  int value_;
};

}  // namespace

int main() {
  {
    Vela::Ptr<Probe> probe = Vela::make<Probe>(7);
    Vela::Ptr<Probe const> view = probe;
    if (probe->refCount() != 2 || view->value() != 7) {
      std::puts("tunnel consumer: wrong reference count");
      return 1;
    }
  }
  if (destroyed != 1) {
    std::puts("tunnel consumer: probe not destroyed with its last reference");
    return 1;
  }
  std::puts("tunnel consumer ok");
  return 0;
}
