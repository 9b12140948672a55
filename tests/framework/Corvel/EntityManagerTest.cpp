// The in-process state database: paths, publication, and mounts that
// complete through the event loop.
#include <gtest/gtest.h>

#include "framework/Corvel/EntityManager.h"
#include "framework/Plinth/CAgent.h"

namespace {

class Counter : public Vela::Entity {
 public:
  explicit Counter(Vela::Name name) : Entity(std::move(name)) {}
  std::string_view typeName() const override { return "Test::Counter"; }
};

struct Recorder : Corvel::MountClient {
  int calls = 0;
  Corvel::MountStatus status = Corvel::MountStatus::mountBadPath;
  void doMountsComplete(Corvel::MountStatus s, Vela::Ptr<Corvel::EntityManager> const&) override {
    ++calls;
    status = s;
  }
};

class EntityManagerTest : public ::testing::Test {
 protected:
  Vela::Ptr<Quay::TaskScheduler> scheduler = Vela::make<Quay::TaskScheduler>();
  Vela::Ptr<Corvel::EntityManager> em = Vela::make<Corvel::EntityManager>(scheduler);
};

TEST_F(EntityManagerTest, PublishedEntitiesAreFoundByPathAndDirectoriesNotify) {
  auto dir = em->dirIs("tunnel/table");
  std::vector<std::string> added;
  auto sub = dir->entries().changed().connect([&](Vela::Name const& n) { added.push_back(n); });
  auto counter = Vela::make<Counter>("ldp");
  em->entityIs("/tunnel/table/ldp/", counter);
  EXPECT_EQ(em->getEntity("tunnel/table/ldp"), counter);
  EXPECT_EQ(em->getEntity("tunnel/table"), dir);
  EXPECT_EQ(em->getEntity("tunnel/table/ldp/deeper"), nullptr);
  EXPECT_EQ(em->getEntity("tunnel/none"), nullptr);
  EXPECT_TRUE(em->entityDel("tunnel/table/ldp"));
  EXPECT_FALSE(em->entityDel("tunnel/table/ldp"));
  EXPECT_EQ(added, (std::vector<std::string>{"ldp", "ldp"}));
}

TEST_F(EntityManagerTest, MountsCompleteLaterThroughTheLoop) {
  em->typeIs<Counter>("Test::Counter");
  Recorder client;
  auto group = em->getMountGroup(&client);
  group->doMount("tunnel/table", "Vela::Dir", "riO");
  group->doMount("tunnel/counter", "Test::Counter", "w");
  group->doClose();
  EXPECT_EQ(client.calls, 0);  // not inside doClose
  scheduler->runUntilIdle();
  EXPECT_EQ(client.calls, 1);
  EXPECT_EQ(client.status, Corvel::mountSuccess);
  auto made = em->getEntity("tunnel/counter");
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->typeName(), "Test::Counter");
  EXPECT_EQ(made->name(), "counter");
}

TEST_F(EntityManagerTest, TypeMismatchAndUnknownTypeFailTheGroup) {
  em->entityIs("a/counter", Vela::make<Counter>("counter"));
  Recorder mismatch;
  auto g1 = em->getMountGroup(&mismatch);
  g1->doMount("a/counter", "Vela::Dir", "r");
  g1->doClose();
  Recorder unknown;
  auto g2 = em->getMountGroup(&unknown);
  g2->doMount("a/other", "No::Such::Type", "w");
  g2->doClose();
  scheduler->runUntilIdle();
  EXPECT_EQ(mismatch.status, Corvel::MountStatus::mountTypeMismatch);
  EXPECT_EQ(unknown.status, Corvel::MountStatus::mountUnknownType);
  EXPECT_EQ(em->getEntity("a/other"), nullptr);
}

TEST_F(EntityManagerTest, ClientGoneBeforeCompletionIsNotCalled) {
  auto client = std::make_unique<Recorder>();
  auto group = em->getMountGroup(client.get());
  group->doMount("x", "Vela::Dir", "r");
  group->doClose();
  client.reset();
  scheduler->runUntilIdle();  // must not touch the destroyed client
  EXPECT_NE(em->getEntity("x"), nullptr);
}

class TwoStepAgent : public Plinth::CAgent {
 public:
  explicit TwoStepAgent(Vela::Ptr<Corvel::EntityManager> em) : CAgent("agent", std::move(em)) {}
  std::vector<std::string> steps;
  void doInit(Vela::Ptr<Corvel::EntityManager> const& em) override {
    steps.push_back("init");
    auto group = em->getMountGroup(this);
    group->doMount("agent/dir", "Vela::Dir", "w");
    group->doClose();
  }
  void doMountsComplete(Corvel::MountStatus status, Vela::Ptr<Corvel::EntityManager> const&) override {
    steps.push_back(std::string("complete ") + Vela::enumName(status));
  }
};

TEST_F(EntityManagerTest, AgentInitsAndCompletesOnTheLoop) {
  auto agent = Vela::make<TwoStepAgent>(em);
  agent->start();
  EXPECT_TRUE(agent->steps.empty());
  scheduler->runUntilIdle();
  EXPECT_EQ(agent->steps, (std::vector<std::string>{"init", "complete mountSuccess"}));
}

}  // namespace
