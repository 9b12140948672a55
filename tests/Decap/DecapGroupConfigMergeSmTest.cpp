// The merge of decap group sources: the one-source rule, readiness, mounts of
// dynamic sources, the internal-consistency failures, and a randomized model
// check of the merged output (and of the simulator that reads it).
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Decap/DecapGroupConfigMergeSm.h"
#include "Decap/TunnelOrlaRoot.h"
#include "Decap/TunnelSimulator.h"
#include "framework/Quay/TaskScheduler.h"
#include "framework/Skein/Trace.h"
#include "tests/framework/Vela/Thrown.h"

namespace Tunnel::Decap {
namespace {

using Nimbo::IpGenAddr;

std::string sourcePath(Vela::Name const& name) { return std::string(dynamicInputDir) + "/" + name; }

bool ringHas(std::string const& line) {
  for (auto const& l : Skein::defaultHandle().recent()) {
    if (l == line) return true;
  }
  return false;
}

class DecapGroupConfigMergeSmTest : public ::testing::Test {
 protected:
  DecapGroupConfigMergeSmTest() { registerDecapTypes(*em); }
  ~DecapGroupConfigMergeSmTest() override {
    // Mounts still in flight hold the merge; let them go before the loop.
    if (sm) sm->stop();
    scheduler->runUntilIdle();
  }

  Vela::Ptr<ConfigInput> publish(Vela::Name const& name) {
    auto input = configInputFactory(name);
    em->entityIs(sourcePath(name), input);
    return input;
  }
  Vela::Ptr<DecapGroupConfigMergeSm> const& start() {
    sm = Vela::make<DecapGroupConfigMergeSm>(merged, cli, em->dirIs(dynamicInputDir), em);
    return sm;
  }
  // Whether a level-1 line with exactly this text was traced.
  static bool level1(Skein::CaptureSink const& cap, std::string const& text) {
    for (auto const& line : cap.lines()) {
      if (line.level == 1 && line.text == text) return true;
    }
    return false;
  }

  Vela::Ptr<Quay::TaskScheduler> scheduler = Vela::make<Quay::TaskScheduler>();
  Vela::Ptr<Corvel::EntityManager> em = Vela::make<Corvel::EntityManager>(scheduler);
  Vela::Ptr<ConfigInput> cli = configInputFactory("cli");
  Vela::Ptr<Config> merged = configFactory();
  Vela::Ptr<DecapGroupConfigMergeSm> sm;
};

TEST_F(DecapGroupConfigMergeSmTest, CommandLineGroupsAreMergedAtStartAndReadyWithoutDynamicSources) {
  auto g1 = cli->newDecapGroup("g1");
  auto g2 = cli->newDecapGroup("g2");
  Skein::CaptureSink cap(8);
  start();

  EXPECT_TRUE(sm->initialized());
  EXPECT_TRUE(merged->ready());
  EXPECT_TRUE(sm->pendingMounts().empty());
  ASSERT_EQ(merged->decapGroups().size(), 2u);
  EXPECT_EQ(merged->decapGroup("g1"), g1);  // the CLI config's own entity
  EXPECT_EQ(merged->decapGroup("g2"), g2);
  EXPECT_EQ(sm->config("cli"), cli);
  EXPECT_NE(sm->decapGroupConfig("cli"), nullptr);
  EXPECT_EQ(sm->sourceSet("g1")->sourceCount(), 1u);
  EXPECT_TRUE(sm->sourceSet("g1")->source("cli"));
  EXPECT_TRUE(cap.contains("handleInitialized"));
  EXPECT_TRUE(cap.contains("handleConfigSource for cli"));
  EXPECT_TRUE(cap.contains("handleDecapGroup for cli, decapGroup g1"));
  EXPECT_TRUE(cap.contains("setOutputForDecapGroup for decap group g1"));
  EXPECT_TRUE(level1(cap, "setOutputForDecapGroup add merged config entry for g1 from source cli"));

  // Later changes of a merged group are seen through the output without
  // further merge work.
  cap.clear();
  g1->decapIpIs(IpGenAddr("10.0.0.1"), true);
  EXPECT_TRUE(merged->decapGroup("g1")->decapIp(IpGenAddr("10.0.0.1")));
  EXPECT_EQ(cap.count("setOutputForDecapGroup"), 0u);

  auto g3 = cli->newDecapGroup("g3");
  EXPECT_EQ(merged->decapGroup("g3"), g3);
  cli->decapGroupDel("g2");
  EXPECT_EQ(merged->decapGroup("g2"), nullptr);
  EXPECT_EQ(sm->sourceSet("g2"), nullptr);
  EXPECT_TRUE(level1(cap, "setOutputForDecapGroup remove merged config entry for g2 with source count 0"));
  EXPECT_TRUE(merged->ready());
}

TEST_F(DecapGroupConfigMergeSmTest, ReadinessWaitsForTheSourcesPresentAtStartOnly) {
  cli->newDecapGroup("c1");
  cli->newDecapGroup("shared");
  publish("src1");  // holds no groups
  auto src2 = publish("src2");
  auto d1 = src2->newDecapGroup("d1");
  Skein::CaptureSink cap(8);
  start();
  int readyChanges = 0;
  auto sub = merged->readyChanged().connect([&] { ++readyChanges; });

  EXPECT_FALSE(merged->ready());
  EXPECT_EQ(sm->pendingMounts().size(), 2u);
  EXPECT_TRUE(sm->pendingMount("src1"));
  EXPECT_TRUE(sm->pendingMount("src2"));
  EXPECT_TRUE(cap.contains("handleInitialized add pending mount src1"));
  EXPECT_TRUE(cap.contains("handleConfigDirEntry for src2"));
  // The command-line groups are merged already; the sources only once mounted.
  EXPECT_NE(merged->decapGroup("c1"), nullptr);
  EXPECT_EQ(merged->decapGroup("d1"), nullptr);
  EXPECT_NE(sm->mounter("src1"), nullptr);
  // Added while the others are still pending: it does not delay readiness.
  auto late1 = publish("late1");
  late1->newDecapGroup("l1");
  EXPECT_FALSE(sm->pendingMount("late1"));

  scheduler->runUntilIdle();
  EXPECT_TRUE(merged->ready());
  EXPECT_EQ(readyChanges, 1);
  EXPECT_TRUE(sm->pendingMounts().empty());
  EXPECT_EQ(merged->decapGroup("d1"), d1);
  EXPECT_EQ(merged->decapGroup("l1"), late1->decapGroup("l1"));
  EXPECT_EQ(sm->configs().size(), 4u);
  EXPECT_NE(sm->decapGroupConfig("src1"), nullptr);  // an empty source is kept too
  EXPECT_EQ(sm->mounter("src1"), nullptr);           // forgotten once complete
  EXPECT_TRUE(cap.contains("doMountsComplete mountStatus mountSuccess for src1"));
  EXPECT_TRUE(cap.contains("handlePendingMount pendingMounts 1"));
  EXPECT_TRUE(cap.contains("handlePendingMount pendingMounts 0"));

  // Added once ready: merged only when its mount completes; ready stays.
  auto late2 = publish("late2");
  late2->newDecapGroup("l2");
  late2->newDecapGroup("shared");
  EXPECT_EQ(merged->decapGroup("l2"), nullptr);
  EXPECT_NE(merged->decapGroup("shared"), nullptr);
  scheduler->runUntilIdle();
  EXPECT_EQ(merged->decapGroup("l2"), late2->decapGroup("l2"));
  EXPECT_EQ(merged->decapGroup("shared"), nullptr);  // now a conflict
  EXPECT_TRUE(merged->ready());
  EXPECT_EQ(readyChanges, 1);
}

TEST_F(DecapGroupConfigMergeSmTest, AConflictTakesTheNameOutUntilOneSourceDropsIt) {
  auto cliG = cli->newDecapGroup("g");
  auto src1 = publish("src1");
  auto src1G = src1->newDecapGroup("g");
  auto src2 = publish("src2");
  start();
  Skein::CaptureSink cap(1);
  scheduler->runUntilIdle();

  EXPECT_EQ(merged->decapGroup("g"), nullptr);
  EXPECT_EQ(sm->sourceSet("g")->sourceCount(), 2u);
  EXPECT_TRUE(level1(cap, "setOutputForDecapGroup remove merged config entry for g with source count 2"));

  // Either source dropping it gives the other's own group back.
  src1->decapGroupDel("g");
  EXPECT_EQ(merged->decapGroup("g"), cliG);
  EXPECT_TRUE(level1(cap, "setOutputForDecapGroup add merged config entry for g from source cli"));
  src1G = src1->newDecapGroup("g");
  EXPECT_EQ(merged->decapGroup("g"), nullptr);
  cli->decapGroupDel("g");
  EXPECT_EQ(merged->decapGroup("g"), src1G);
  EXPECT_TRUE(level1(cap, "setOutputForDecapGroup add merged config entry for g from source src1"));

  // Three holders: dropping one still leaves a conflict.
  auto src2G = src2->newDecapGroup("g");
  cliG = cli->newDecapGroup("g");
  EXPECT_EQ(sm->sourceSet("g")->sourceCount(), 3u);
  EXPECT_TRUE(level1(cap, "setOutputForDecapGroup remove merged config entry for g with source count 3"));
  src1->decapGroupDel("g");
  EXPECT_EQ(merged->decapGroup("g"), nullptr);
  src2->decapGroupDel("g");
  EXPECT_EQ(merged->decapGroup("g"), cliG);
  cli->decapGroupDel("g");
  EXPECT_EQ(merged->decapGroup("g"), nullptr);
  EXPECT_EQ(sm->sourceSet("g"), nullptr);
  EXPECT_TRUE(merged->decapGroups().empty());
}

TEST_F(DecapGroupConfigMergeSmTest, InconsistenciesStopTheAgent) {
  cli->newDecapGroup("g");
  publish("src1");
  start();
  scheduler->runUntilIdle();
  EXPECT_EQ(assertionText([&] { em->entityDel(sourcePath("src1")); }), "configDir()->entry(configPath)");
  EXPECT_TRUE(ringHas("unhandled removal of dynamic input entry src1"));

  // Through the loop: a dynamic entry of another type fails its mount.
  em->entityIs(sourcePath("status"), Hardware::statusFactory("status"));
  EXPECT_EQ(assertionText([&] { scheduler->runUntilIdle(); }), "mountStatus == Corvel::mountSuccess()");
  EXPECT_TRUE(ringHas("invalid mountStatus mountTypeMismatch for status"));

  auto mounter = Vela::make<DecapGroupConfigMounter>("src2", sm);
  EXPECT_EQ(assertionText([&] { mounter->doMountsComplete(Corvel::MountStatus::mountTypeMismatch, em); }),
            "mountStatus == Corvel::mountSuccess()");
  EXPECT_TRUE(ringHas("invalid mountStatus mountTypeMismatch for src2"));

  // Nothing at the path.
  auto ghost = Vela::make<DecapGroupConfigMounter>("ghost", sm);
  EXPECT_EQ(assertionText([&] { ghost->doMountsComplete(Corvel::mountSuccess, em); }), "decapGroupConfig");
  EXPECT_TRUE(ringHas("internal error for routing/tunneldecap/input/dynamic/ghost"));

  // Something else at the path (in a database this merge does not watch).
  auto otherEm = Vela::make<Corvel::EntityManager>(scheduler);
  otherEm->entityIs(sourcePath("other"), Hardware::statusFactory("other"));
  auto other = Vela::make<DecapGroupConfigMounter>("other", sm);
  EXPECT_EQ(assertionText([&] { other->doMountsComplete(Corvel::mountSuccess, otherEm); }),
            "decapGroupConfig");
  EXPECT_TRUE(ringHas("internal error for routing/tunneldecap/input/dynamic/other"));
  EXPECT_EQ(sm->config("other"), nullptr);

  // A source counted for a name that does not hold the group.
  auto set = sm->sourceSet("g");
  set->sourceDel("cli");
  set->sourceIs("ghost", true);
  EXPECT_EQ(assertionText([&] { sm->setOutputForDecapGroup("g"); }), "activeDecapGroup");
  EXPECT_TRUE(ringHas("missing expected decap group g from ghost"));
}

TEST_F(DecapGroupConfigMergeSmTest, StartUpChecksAndNullSources) {
  auto dir = em->dirIs(dynamicInputDir);
  auto stale = configInputFactory("stale");
  merged->decapGroupIs(stale->newDecapGroup("x"));
  EXPECT_EQ(assertionText([&] { Vela::make<DecapGroupConfigMergeSm>(merged, cli, dir, em); }),
            "!mergedConfig()->decapGroups()");
  merged->decapGroupDel("x");
  merged->readyIs(true);
  EXPECT_EQ(assertionText([&] { Vela::make<DecapGroupConfigMergeSm>(merged, cli, dir, em); }),
            "!mergedConfig()->ready()");
  merged->readyIs(false);
  EXPECT_EQ(assertionText([&] { Vela::make<DecapGroupConfigMergeSm>(merged, nullptr, dir, em); }),
            "cliConfig()");

  start();
  EXPECT_EQ(
      thrownText<Vela::RangeException>([&] { sm->configIs(nullptr); }),
      "null _config parameter to mutator for Tunnel::Decap::DecapGroupConfigMergeSm::config not allowed\"");
  EXPECT_EQ(thrownText<Vela::RangeException>([&] { sm->decapGroupConfigIs(nullptr); }),
            "null _decapGroupConfig parameter to mutator for "
            "Tunnel::Decap::DecapGroupConfigMergeSm::decapGroupConfig not allowed\"");
  EXPECT_EQ(sm->configs().size(), 1u);
}

TEST_F(DecapGroupConfigMergeSmTest, TheSimulationRootOwnsTheMergedConfigAndTheMerge) {
  auto root = Vela::make<TunnelOrlaRoot>("tunnel");
  auto config = root->dgConfigIs();
  EXPECT_EQ(root->dgConfigIs(), config);  // created once
  auto src1 = publish("src1");
  src1->newDecapGroup("d1");
  cli->newDecapGroup("c1");

  auto merge = root->dgConfigMergeSmIs(root->dgConfig(), cli, em->dirIs(dynamicInputDir), em);
  EXPECT_EQ(merge->mergedConfig(), config);
  scheduler->runUntilIdle();
  EXPECT_TRUE(config->ready());
  EXPECT_EQ(config->decapGroup("d1"), src1->decapGroup("d1"));
  EXPECT_EQ(config->decapGroup("c1"), cli->decapGroup("c1"));

  // Released with a mount in flight: the mount reports to no one.
  auto src2 = publish("src2");
  src2->newDecapGroup("d2");
  EXPECT_NE(merge->mounter("src2"), nullptr);
  root->dgConfigMergeSmDel();
  EXPECT_EQ(root->dgConfigMergeSm(), nullptr);
  merge = nullptr;
  scheduler->runUntilIdle();
  EXPECT_EQ(config->decapGroup("d2"), nullptr);
  cli->newDecapGroup("c2");
  EXPECT_EQ(config->decapGroup("c2"), nullptr);

  root->dgConfigDel();
  EXPECT_EQ(root->dgConfig(), nullptr);
}

// Random operations on several sources. After each, the merged output holds
// exactly the names that exactly one mounted source holds, each referring to
// that source's own group; and the simulator's address table matches a model
// of its per-group bookkeeping.
TEST_F(DecapGroupConfigMergeSmTest, RandomOperationsKeepTheOneSourceRule) {
  constexpr std::uint32_t seed = 0x5eed2024u;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };

  std::vector<Vela::Name> const names = {"g0", "g1", "g2", "g3", "g4"};
  std::vector<IpGenAddr> const addrs = {IpGenAddr("10.0.0.1"),    IpGenAddr("10.0.0.2"), IpGenAddr("0.0.0.0"),
                                        IpGenAddr("2001:db8::1"), IpGenAddr("::"),       IpGenAddr()};

  std::vector<Vela::Ptr<ConfigInput>> sources = {cli, publish("src1"), publish("src2")};
  start();
  scheduler->runUntilIdle();
  ASSERT_TRUE(merged->ready());
  auto sim = Vela::make<TunnelSimulator>(merged);
  Vela::ScopedAssertionCatcher catcher;

  // The model of the simulator: per followed group, its last address.
  struct Followed {
    Vela::Ptr<DecapGroup const> group;
    IpGenAddr prev;
  };
  std::map<Vela::Name, Followed> followed;
  std::map<IpGenAddr, std::uint32_t> counts;
  auto release = [&](IpGenAddr const& prev) {
    if (!TunnelSimulator::countsAsDecapIp(prev)) return;
    auto& c = counts[prev];
    ASSERT_GT(c, 0u);
    if (--c == 0) counts.erase(prev);
  };
  auto modelDecapIp = [&](Followed& f, IpGenAddr const& addr) {
    if (TunnelSimulator::countsAsDecapIp(addr)) ++counts[addr];
    if (f.prev != addr) release(f.prev);
    f.prev = addr;
  };
  // The merged output as the rule defines it, from the sources themselves:
  // null where not exactly one source holds the name.
  using Merge = std::map<Vela::Name, Vela::Ptr<DecapGroup const>>;
  auto expectedMerge = [&] {
    Merge expected;
    for (auto const& name : names) {
      std::vector<Vela::Ptr<DecapGroup const>> holders;
      for (auto const& source : sources) {
        if (auto g = source->decapGroup(name)) holders.push_back(g);
      }
      expected[name] = holders.size() == 1 ? holders.front() : nullptr;
    }
    return expected;
  };
  // Follows the output's changes the way the simulator does.
  auto modelOutputChange = [&](Merge const& before, Merge const& after) {
    for (auto const& name : names) {
      auto const& was = before.at(name);
      auto const& now = after.at(name);
      if (was == now) continue;
      if (was && now) {
        followed[name].group = now;  // replaced in place: the reactor keeps its address
      } else if (was) {
        release(followed[name].prev);
        followed.erase(name);
      } else {
        followed[name] = Followed{now, IpGenAddr()};
      }
    }
  };
  auto check = [&](int step) {
    SCOPED_TRACE("step " + std::to_string(step));
    std::size_t present = 0;
    for (auto const& [name, group] : expectedMerge()) {
      ASSERT_EQ(merged->decapGroup(name).get(), group.get()) << name;
      present += group != nullptr;
    }
    ASSERT_EQ(merged->decapGroups().size(), present);
    ASSERT_TRUE(merged->ready());
    ASSERT_EQ(sim->decapIps().size(), counts.size());
    for (auto const& [addr, count] : counts) ASSERT_EQ(sim->decapIp(addr), count) << addr;
  };

  constexpr int steps = 3000;
  for (int step = 0; step < steps; ++step) {
    if (step == steps / 3) {
      // A source that appears late, already holding groups.
      auto late = configInputFactory("src3");
      for (auto const& name : names) {
        if (rng() % 2) late->newDecapGroup(name)->decapIpIs(addrs[pick(addrs.size())], true);
      }
      auto const before = expectedMerge();
      em->entityIs(sourcePath("src3"), late);
      scheduler->runUntilIdle();
      sources.push_back(late);
      modelOutputChange(before, expectedMerge());
      check(step);
      continue;
    }
    auto const& source = sources[pick(sources.size())];
    Vela::Name const& name = names[pick(names.size())];
    auto const before = expectedMerge();
    switch (pick(10)) {
      case 0:
      case 1:
      case 2:
      case 3:
        source->newDecapGroup(name);
        break;
      case 4:
      case 5:
        source->decapGroupDel(name);
        break;
      default: {
        auto group = source->decapGroup(name);
        if (!group) break;
        IpGenAddr const addr = addrs[pick(addrs.size())];
        bool notified;
        if (pick(4) == 0) {
          notified = group->decapIps().contains(addr);
          group->decapIpDel(addr);
        } else {
          bool const flag = pick(3) != 0;
          auto const* old = group->decapIps().lookup(addr);
          notified = !old || *old != flag;
          group->decapIpIs(addr, flag);
        }
        auto f = followed.find(name);
        if (notified && f != followed.end() && f->second.group == group) modelDecapIp(f->second, addr);
        break;
      }
    }
    modelOutputChange(before, expectedMerge());
    check(step);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace Tunnel::Decap
