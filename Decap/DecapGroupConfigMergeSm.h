// The merge of decap group configuration sources into one Config.
//
// Sources are the command-line ConfigInput and every dynamic ConfigInput
// published as an entry of "routing/tunneldecap/input/dynamic/". The merge
// state machine mounts each dynamic source read-only, watches the groups of
// every source and publishes a group name in the merged Config only while
// exactly one source holds a group of that name; the entry then refers to
// that source's own DecapGroup. A name held by two or more sources leaves the
// output: no source wins. The output becomes ready once every dynamic source
// present at start has been mounted, and stays ready.
//
//   auto merge = Vela::make<DecapGroupConfigMergeSm>(merged, cliInput,
//                                                    em->dirIs(dynamicInputDir), em);
//
// Removing a dynamic source is not supported: it writes a trace line and
// fails an assertion, as do the other internal-consistency failures here.
#pragma once

#include <cstdint>
#include <string_view>

#include "Decap/DecapGroup.h"
#include "framework/Corvel/EntityManager.h"
#include "framework/Vela/Entity.h"
#include "framework/Vela/Signal.h"
#include "framework/Vela/Types.h"

namespace Tunnel::Decap {

// The directory under which dynamic sources publish their ConfigInput.
inline constexpr std::string_view dynamicInputDir = "routing/tunneldecap/input/dynamic";

class DecapGroupConfigMergeSm;

// Reports the completion of one dynamic source's mount to the merge.
class DecapGroupConfigMounter : public Vela::Entity, public Corvel::MountClient {
 public:
  DecapGroupConfigMounter(Vela::Name name, Vela::Ptr<DecapGroupConfigMergeSm> mergeSm);
  std::string_view typeName() const override { return "Tunnel::Decap::DecapGroupConfigMounter"; }

  Vela::Ptr<DecapGroupConfigMergeSm> const& mergeSm() const { return mergeSm_; }

  void doMountsComplete(Corvel::MountStatus mountStatus,
                        Vela::Ptr<Corvel::EntityManager> const& entityManager) override;

 private:
  Vela::Ptr<DecapGroupConfigMergeSm> mergeSm_;
};

class DecapGroupConfigMergeSm : public Vela::Entity {
 public:
  // The sources that currently hold a group of one name.
  class SourceSet : public Vela::Entity {
   public:
    explicit SourceSet(Vela::Name decapGroupName) : Entity(std::move(decapGroupName)) {}
    std::string_view typeName() const override { return "Tunnel::Decap::DecapGroupConfigMergeSm::SourceSet"; }

    Vela::Name const& decapGroupName() const { return name(); }
    std::size_t sourceCount() const { return source_.size(); }

    VELA_VALUE_COLLECTION(Vela::Name, bool, source);
  };

  // Watches the groups of one source and forwards each change to the merge.
  class DecapGroupConfigReactor : public Vela::Entity, public Vela::Reactor<ConfigInput> {
   public:
    DecapGroupConfigReactor(Vela::Ptr<ConfigInput const> const& source, DecapGroupConfigMergeSm* mergeSm);
    std::string_view typeName() const override {
      return "Tunnel::Decap::DecapGroupConfigMergeSm::DecapGroupConfigReactor";
    }

   private:
    void onNotifier(ConfigInput const& source) override;
    DecapGroupConfigMergeSm* mergeSm_;  // the owner
  };

  // Runs handleInitialized() before returning.
  DecapGroupConfigMergeSm(Vela::Ptr<Config> mergedConfig, Vela::Ptr<ConfigInput const> cliConfig,
                          Vela::Ptr<Vela::Dir const> configDir,
                          Vela::Ptr<Corvel::EntityManager> entityManager);
  ~DecapGroupConfigMergeSm() override;
  std::string_view typeName() const override { return "Tunnel::Decap::DecapGroupConfigMergeSm"; }

  Vela::Ptr<Config> const& mergedConfig() const { return mergedConfig_; }
  Vela::Ptr<ConfigInput const> const& cliConfig() const { return cliConfig_; }
  Vela::Ptr<Vela::Dir const> const& configDir() const { return configDir_.notifier(); }
  Vela::Ptr<Corvel::EntityManager> const& entityManager() const { return entityManager_; }
  bool initialized() const { return initialized_; }

  // Every source known so far, the CLI config included, by the ConfigInput's name.
  Vela::Ptr<ConfigInput const> config(Vela::Name const& name) const { return config_.get(name); }
  auto const& configs() const { return config_; }
  // Adds the source under its name unless a source of that name is known,
  // then makes sure its reactor exists (a new reactor merges its groups).
  void configIs(Vela::Ptr<ConfigInput const> const& source);

  Vela::Ptr<DecapGroupConfigReactor> decapGroupConfig(Vela::Name const& name) const {
    return decapGroupConfig_.get(name);
  }
  auto const& decapGroupConfigs() const { return decapGroupConfig_; }
  // Creates the reactor of a source unless one exists; a new reactor runs
  // handleConfigSource().
  void decapGroupConfigIs(Vela::Ptr<ConfigInput const> const& source);

  Vela::Ptr<SourceSet> sourceSet(Vela::Name const& decapGroupName) const {
    return sourceSet_.get(decapGroupName);
  }
  auto const& sourceSets() const { return sourceSet_; }

  bool pendingMount(Vela::Name const& name) const { return pendingMount_.get(name); }
  void pendingMountIs(Vela::Name const& name, bool pending) { pendingMount_.set(name, pending); }
  void pendingMountDel(Vela::Name const& name) { pendingMount_.del(name); }
  auto const& pendingMounts() const { return pendingMount_; }

  // The mounter of a dynamic source whose mount has not completed, if any.
  Vela::Ptr<DecapGroupConfigMounter> mounter(Vela::Name const& name) const { return mounter_.get(name); }

  // Handlers; each traces its name on entry.
  void handleInitialized();
  void handleConfigDirEntry(Vela::Name const& configPath);
  void handleConfigSource(Vela::Name const& source);
  void handleDecapGroup(Vela::Name const& source, Vela::Name const& decapGroup);
  void setOutputForDecapGroup(Vela::Name const& decapGroup);
  void handlePendingMount();

  // Switches off every notification and abandons the mounts in progress (a
  // mounter holds a reference to the merge until its mount completes). Called
  // by the owner before it lets go of the merge.
  void stop();

 private:
  friend class DecapGroupConfigMounter;

  // Forwards the entries of the dynamic-source directory.
  class ConfigDirReactor : public Vela::Reactor<Vela::Dir> {
   public:
    explicit ConfigDirReactor(DecapGroupConfigMergeSm* mergeSm) : mergeSm_(mergeSm) {}

   private:
    void onNotifier(Vela::Dir const& dir) override;
    DecapGroupConfigMergeSm* mergeSm_;
  };

  // Forgets the mounter once its mount completed, unless another one has
  // replaced it under the same name.
  void mounterDone(DecapGroupConfigMounter const* mounter);

  Vela::Ptr<Config> mergedConfig_;
  Vela::Ptr<ConfigInput const> cliConfig_;
  Vela::Ptr<Corvel::EntityManager> entityManager_;
  Vela::RefCollection<Vela::Name, ConfigInput const> config_{
      "config", "Tunnel::Decap::DecapGroupConfigMergeSm::config"};
  Vela::RefCollection<Vela::Name, DecapGroupConfigReactor> decapGroupConfig_{
      "decapGroupConfig", "Tunnel::Decap::DecapGroupConfigMergeSm::decapGroupConfig"};
  Vela::EntityCollection<Vela::Name, SourceSet> sourceSet_;
  Vela::ValueCollection<Vela::Name, bool> pendingMount_;
  Vela::EntityCollection<Vela::Name, DecapGroupConfigMounter> mounter_;
  bool initialized_ = false;
  // Declared last: disconnected before the collections they watch go away.
  ConfigDirReactor configDir_{this};
  Vela::Subscription pendingMountWatch_;
};

}  // namespace Tunnel::Decap
