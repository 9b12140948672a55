// Fuzzes the merge of decapsulation group sources and the simulator that
// counts decapsulation addresses from the merged configuration.
//
// The input's bytes become operations on several sources: the command-line
// source and dynamic sources published under the dynamic input directory
// (before and after the merge starts, some under a name another source
// already has), groups created and deleted, addresses and interfaces set and
// removed, mounts completing one loop step at a time, the simulator created
// at any point, and the merge restarted on a fresh configuration. After every
// operation the merged output is compared with an independent computation
// from the sources themselves (a name is merged only while exactly one
// mounted source holds it, and the entry is that source's own group), the
// per-name source counts with the same, and the simulator's address table
// with a model of its per-group bookkeeping (the last address each followed
// group reported; a removal counts like an addition). After the loop has run
// dry every source is mounted and the output is ready. A failed check
// prints the operations and aborts; TUNNEL_FUZZ_VERBOSE=1 prints them for
// every input.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Decap/DecapGroupConfigMergeSm.h"
#include "Decap/TunnelOrlaRoot.h"
#include "Decap/TunnelSimulator.h"
#include "framework/Quay/Clock.h"
#include "framework/Quay/TaskScheduler.h"
#include "fuzz/OperationLog.h"

namespace {

using namespace Tunnel::Decap;
using Nimbo::IpGenAddr;

constexpr int kMaxOperations = 200;
constexpr int kMaxDynamicSources = 4;

std::vector<Vela::Name> const& groupNames() {
  static std::vector<Vela::Name> const names = {"g0", "g1", "g2", "g3"};
  return names;
}

std::vector<IpGenAddr> const& addresses() {
  static std::vector<IpGenAddr> const addrs = {IpGenAddr("10.0.0.1"), IpGenAddr("10.0.0.2"),
                                               IpGenAddr("0.0.0.0"),  IpGenAddr("2001:db8::1"),
                                               IpGenAddr("::"),       IpGenAddr()};
  return addrs;
}

using Merge = std::map<Vela::Name, Vela::Ptr<DecapGroup const>>;

class Harness {
 public:
  Harness() { registerDecapTypes(*em_); }
  ~Harness() {
    simAgent_->tunnelSimDel();
    root_->dgConfigMergeSmDel();
    scheduler_->runUntilIdle();
  }

  void run(FuzzedDataProvider& in) {
    // Sources published before the merge starts make it wait for their mounts.
    int const early = in.ConsumeIntegralInRange<int>(0, 2);
    for (int i = 0; i < early; ++i) publish(in);
    startMerge();
    for (int n = 0; n < kMaxOperations && in.remaining_bytes() > 0; ++n) {
      Merge const before = expected();
      bool rebuilt = false;  // the simulator's model was made afresh from the output
      switch (in.ConsumeIntegralInRange<int>(0, 15)) {
        case 0:
        case 1:
        case 2:
          newGroup(in);
          break;
        case 3:
        case 4:
          deleteGroup(in);
          break;
        case 5:
        case 6:
        case 7:
        case 8:
          changeAddress(in);
          break;
        case 9:
          changeInterface(in);
          break;
        case 10:
          publish(in);
          break;
        case 11:
          log("run one loop step");
          scheduler_->runOne();
          break;
        case 12:
          runDry();
          break;
        case 13:
          startSimulator();
          rebuilt = true;
          break;
        case 14:
          restartMerge();
          rebuilt = true;
          break;
        default:
          log("nothing");
          break;
      }
      if (!rebuilt) followOutput(before, expected());
      check();
    }
    Merge const before = expected();
    runDry();
    followOutput(before, expected());
    check();
    log_.printIfVerbose();
  }

 private:
  void log(std::string line) { log_.add(std::move(line)); }
  [[noreturn]] void fail(std::string const& what) const { log_.fail(what); }

  static std::string sourcePath(Vela::Name const& name) { return std::string(dynamicInputDir) + "/" + name; }

  Vela::Ptr<ConfigInput> const& source(FuzzedDataProvider& in) {
    return sources_[in.ConsumeIntegralInRange<std::size_t>(0, sources_.size() - 1)];
  }
  Vela::Name const& groupName(FuzzedDataProvider& in) {
    return groupNames()[in.ConsumeIntegralInRange<std::size_t>(0, groupNames().size() - 1)];
  }
  IpGenAddr const& address(FuzzedDataProvider& in) {
    return addresses()[in.ConsumeIntegralInRange<std::size_t>(0, addresses().size() - 1)];
  }

  // --- operations ------------------------------------------------------------------------------

  // A new dynamic source, sometimes already holding groups, now and then
  // with the entity name of a source that exists (the directory entry name
  // is always new).
  void publish(FuzzedDataProvider& in) {
    if (published_ == kMaxDynamicSources) return;
    ++published_;
    std::string const entry = "src" + std::to_string(published_);
    std::string name = entry;
    if (in.ConsumeIntegralInRange<int>(0, 7) == 0)
      name = sources_[in.ConsumeIntegralInRange<std::size_t>(0, sources_.size() - 1)]->name();
    auto input = configInputFactory(name);
    int const groups = in.ConsumeIntegralInRange<int>(0, 2);
    std::ostringstream text;
    text << "publish " << entry << " as '" << name << "' with";
    for (int i = 0; i < groups; ++i) {
      auto const& g = groupName(in);
      auto group = input->newDecapGroup(g);
      IpGenAddr const& addr = address(in);
      group->decapIpIs(addr, true);
      text << " " << g << "{" << addr << "}";
    }
    log(text.str());
    sources_.push_back(input);
    entries_.push_back(entry);
    em_->entityIs(sourcePath(entry), input);
  }

  void newGroup(FuzzedDataProvider& in) {
    auto const& s = source(in);
    auto const& g = groupName(in);
    log("new group " + g + " in " + s->name());
    s->newDecapGroup(g);
  }

  void deleteGroup(FuzzedDataProvider& in) {
    auto const& s = source(in);
    auto const& g = groupName(in);
    log("delete group " + g + " of " + s->name());
    s->decapGroupDel(g);
  }

  void changeAddress(FuzzedDataProvider& in) {
    auto const& s = source(in);
    auto const& g = groupName(in);
    IpGenAddr const addr = address(in);
    int const how = in.ConsumeIntegralInRange<int>(0, 3);
    std::ostringstream text;
    text << (how == 0   ? "remove"
             : how == 1 ? "set false"
                        : "set true")
         << " address '" << addr << "' of " << g << " in " << s->name();
    log(text.str());
    auto group = s->decapGroup(g);
    if (!group) return;
    bool notified;
    if (how == 0) {
      notified = group->decapIps().contains(addr);
      group->decapIpDel(addr);
    } else {
      bool const flag = how != 1;
      auto const* old = group->decapIps().lookup(addr);
      notified = !old || *old != flag;
      group->decapIpIs(addr, flag);
    }
    auto f = followed_.find(g);
    if (sim() && notified && f != followed_.end() && f->second.group == group) modelDecapIp(f->second, addr);
  }

  void changeInterface(FuzzedDataProvider& in) {
    auto const& s = source(in);
    auto const& g = groupName(in);
    log("change interface of " + g + " in " + s->name());
    auto group = s->decapGroup(g);
    if (!group) return;
    DecapIntfKey const key(Nimbo::IntfId::ethernet(in.ConsumeIntegralInRange<std::uint32_t>(1, 2)),
                           in.ConsumeBool() ? Nimbo::AddressFamily::ipv4 : Nimbo::AddressFamily::ipv6);
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
      case 0:
        group->decapIntfDel(key);
        break;
      case 1:
        group->tunnelTypeIs(static_cast<TunnelType>(in.ConsumeIntegralInRange<int>(0, 2)));
        break;
      default:
        group->decapIntfIs(key, DecapIntf(key, in.ConsumeBool() ? AddressType::all : AddressType::primary));
        break;
    }
  }

  void runDry() {
    log("run the loop dry");
    scheduler_->runUntilIdle();
    auto const& sm = merge();
    if (!sm->pendingMounts().empty()) fail("pending mounts after the loop ran dry");
    if (!sm->mergedConfig()->ready()) fail("merged configuration not ready after the loop ran dry");
    for (auto const& s : sources_) {
      if (!sm->config(s->name())) fail("source " + s->name() + " not mounted after the loop ran dry");
    }
    for (auto const& entry : entries_) {
      if (sm->mounter(entry)) fail("mounter of " + entry + " kept after its mount");
    }
  }

  void startMerge() {
    root_->dgConfigIs();
    root_->dgConfigMergeSmIs(root_->dgConfig(), cli_, em_->dirIs(dynamicInputDir), em_);
  }

  // A fresh merge on a fresh configuration; the simulator, if any, moves to it.
  void restartMerge() {
    log("restart the merge");
    bool const hadSim = sim() != nullptr;
    simAgent_->tunnelSimDel();
    followed_.clear();
    counts_.clear();
    root_->dgConfigMergeSmDel();
    root_->dgConfigDel();
    startMerge();
    if (hadSim) startSimulator();
  }

  void startSimulator() {
    log("start the simulator");
    followed_.clear();
    counts_.clear();
    simAgent_->tunnelSimIs(root_->dgConfig());
    // The simulator walks the addresses of the groups the output holds now.
    for (auto it = root_->dgConfig()->decapGroups().begin(); it != root_->dgConfig()->decapGroups().end();
         ++it) {
      Followed& f = followed_[it.key()];
      f.group = it.value();
    }
    for (auto& [name, f] : followed_) {
      for (auto a = f.group->decapIps().begin(); a != f.group->decapIps().end(); ++a)
        modelDecapIp(f, a.key());
    }
  }

  // --- model -----------------------------------------------------------------------------------

  Vela::Ptr<DecapGroupConfigMergeSm> const& merge() const { return root_->dgConfigMergeSm(); }
  TunnelSimulator const* sim() const { return simAgent_->tunnelSim().get(); }

  // Whether the merge has mounted this very source.
  bool mounted(Vela::Ptr<ConfigInput> const& s) const { return merge()->config(s->name()) == s; }

  Merge expected() const {
    Merge out;
    for (auto const& name : groupNames()) {
      std::vector<Vela::Ptr<DecapGroup const>> holders;
      for (auto const& s : sources_) {
        if (!mounted(s)) continue;
        if (auto g = s->decapGroup(name)) holders.push_back(g);
      }
      if (holders.size() == 1) out[name] = holders.front();
    }
    return out;
  }

  struct Followed {
    Vela::Ptr<DecapGroup const> group;
    IpGenAddr prev;
  };

  void decrement(IpGenAddr const& addr) {
    auto it = counts_.find(addr);
    if (it == counts_.end() || it->second == 0) fail("model: count of a followed address below zero");
    if (--it->second == 0) counts_.erase(it);
  }

  void modelDecapIp(Followed& f, IpGenAddr const& addr) {
    if (TunnelSimulator::countsAsDecapIp(addr)) ++counts_[addr];
    if (TunnelSimulator::countsAsDecapIp(f.prev) && f.prev != addr) decrement(f.prev);
    f.prev = addr;
  }

  // The simulator follows the output's entries as they come and go.
  void followOutput(Merge const& before, Merge const& after) {
    if (!sim()) return;
    for (auto const& name : groupNames()) {
      auto b = before.find(name);
      auto a = after.find(name);
      Vela::Ptr<DecapGroup const> const was = b == before.end() ? nullptr : b->second;
      Vela::Ptr<DecapGroup const> const now = a == after.end() ? nullptr : a->second;
      if (was == now) continue;
      if (was && now) {
        followed_[name].group = now;  // replaced in place: the address stays
      } else if (was) {
        auto f = followed_.find(name);
        if (f != followed_.end()) {
          if (TunnelSimulator::countsAsDecapIp(f->second.prev)) decrement(f->second.prev);
          followed_.erase(f);
        }
      } else {
        followed_[name] = Followed{now, IpGenAddr()};
      }
    }
  }

  void check() const {
    auto const& sm = merge();
    Merge const want = expected();
    Config const& merged = *sm->mergedConfig();
    if (merged.decapGroups().size() != want.size()) {
      fail("merged output holds " + std::to_string(merged.decapGroups().size()) + " groups, want " +
           std::to_string(want.size()));
    }
    for (auto const& [name, group] : want) {
      if (merged.decapGroup(name) != group)
        fail("merged entry " + name + " is not the one source's own group");
    }
    for (auto const& name : groupNames()) {
      std::size_t holders = 0;
      for (auto const& s : sources_) holders += mounted(s) && s->decapGroup(name) ? 1 : 0;
      auto const set = sm->sourceSet(name);
      if ((set ? set->sourceCount() : 0) != holders) fail("source count of " + name + " differs");
    }
    if (TunnelSimulator const* s = sim()) {
      if (s->decapIps().size() != counts_.size()) {
        fail("simulator holds " + std::to_string(s->decapIps().size()) + " addresses, model " +
             std::to_string(counts_.size()));
      }
      for (auto const& [addr, count] : counts_) {
        if (s->decapIp(addr) != count) {
          std::ostringstream os;
          os << "simulator count of " << addr << " is " << s->decapIp(addr) << ", model " << count;
          fail(os.str());
        }
      }
    }
  }

  Vela::Ptr<Quay::TaskScheduler> scheduler_ =
      Vela::make<Quay::TaskScheduler>(Vela::make<Quay::ManualClock>());
  Vela::Ptr<Corvel::EntityManager> em_ = Vela::make<Corvel::EntityManager>(scheduler_);
  Vela::Ptr<ConfigInput> cli_ = configInputFactory("cli");
  std::vector<Vela::Ptr<ConfigInput>> sources_{cli_};
  std::vector<std::string> entries_;  // the dynamic sources' directory entries
  int published_ = 0;
  Vela::Ptr<Tunnel::TunnelOrlaRoot> root_ = Vela::make<Tunnel::TunnelOrlaRoot>("tunnel");
  Vela::Ptr<TunnelSimulatorAgent> simAgent_ = Vela::make<TunnelSimulatorAgent>("tunnelSim");
  std::map<Vela::Name, Followed> followed_;
  std::map<IpGenAddr, std::uint32_t> counts_;
  OperationLog log_{"DecapFuzz"};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  Harness harness;
  harness.run(in);
  return 0;
}
