#include "Decap/DecapGroupConfigMergeSm.h"

#include <string>
#include <vector>

#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"

namespace Tunnel::Decap {

namespace {

// An error line that must survive whatever the trace level: it is written
// to the trace when level 1 is on and always lands in the ring buffer, where
// it is found after the assertion that follows it.
void errorLine(std::string const& text) {
  if (Skein::enabled(1)) {
    Skein::defaultHandle().write(1, text);
  } else {
    Skein::ring(text);
  }
}

std::string dynamicInputPath(Vela::Name const& name) { return std::string(dynamicInputDir) + "/" + name; }

}  // namespace

// --- DecapGroupConfigMounter ------------------------------------------------

DecapGroupConfigMounter::DecapGroupConfigMounter(Vela::Name name, Vela::Ptr<DecapGroupConfigMergeSm> mergeSm)
    : Entity(std::move(name)), mergeSm_(std::move(mergeSm)) {}

void DecapGroupConfigMounter::doMountsComplete(Corvel::MountStatus mountStatus,
                                               Vela::Ptr<Corvel::EntityManager> const& entityManager) {
  // The merge forgets this mounter at the end; keep both alive until then.
  Vela::Ptr<DecapGroupConfigMounter> const self(this);
  Vela::Ptr<DecapGroupConfigMergeSm> const mergeSm = mergeSm_;
  SKEIN_TRACE(8, "doMountsComplete"
                     << " mountStatus " << mountStatus << " for " << name());
  if (mountStatus != Corvel::mountSuccess) {
    errorLine("invalid mountStatus " + Vela::enumName(mountStatus) + " for " + name());
    VELA_ASSERT_TEXT(mountStatus == Corvel::mountSuccess, "mountStatus == Corvel::mountSuccess()");
  }
  std::string const path = dynamicInputPath(name());
  auto const decapGroupConfig = Vela::dynamicPtrCast<ConfigInput>(entityManager->getEntity(path));
  if (!decapGroupConfig) {
    errorLine("internal error for " + path);
    VELA_ASSERT_TEXT(decapGroupConfig, "decapGroupConfig");
  }
  mergeSm->configIs(decapGroupConfig);
  // Harmless for a source that appeared after start: it was never pending.
  mergeSm->pendingMountDel(name());
  mergeSm->mounterDone(this);
}

// --- Reactors ---------------------------------------------------------------

DecapGroupConfigMergeSm::DecapGroupConfigReactor::DecapGroupConfigReactor(
    Vela::Ptr<ConfigInput const> const& source, DecapGroupConfigMergeSm* mergeSm)
    : Entity(source->name()), mergeSm_(mergeSm) {
  notifierIs(source);
}

void DecapGroupConfigMergeSm::DecapGroupConfigReactor::onNotifier(ConfigInput const& source) {
  watch(source.decapGroups().changed(),
        [this](Vela::Name const& decapGroup) { mergeSm_->handleDecapGroup(name(), decapGroup); });
}

void DecapGroupConfigMergeSm::ConfigDirReactor::onNotifier(Vela::Dir const& dir) {
  watch(dir.entries().changed(), [this](Vela::Name const& entry) { mergeSm_->handleConfigDirEntry(entry); });
}

// --- DecapGroupConfigMergeSm ------------------------------------------------

DecapGroupConfigMergeSm::DecapGroupConfigMergeSm(Vela::Ptr<Config> mergedConfig,
                                                 Vela::Ptr<ConfigInput const> cliConfig,
                                                 Vela::Ptr<Vela::Dir const> configDir,
                                                 Vela::Ptr<Corvel::EntityManager> entityManager)
    : Entity("decapGroupConfigMergeSm"),
      mergedConfig_(std::move(mergedConfig)),
      cliConfig_(std::move(cliConfig)),
      entityManager_(std::move(entityManager)) {
  configDir_.notifierIs(configDir);
  pendingMountWatch_ = pendingMount_.changed().connect([this](Vela::Name const&) { handlePendingMount(); });
  handleInitialized();
}

DecapGroupConfigMergeSm::~DecapGroupConfigMergeSm() {
  // A reactor handed out by decapGroupConfig() may outlive the merge.
  for (auto it = decapGroupConfig_.begin(); it != decapGroupConfig_.end(); ++it) {
    it.value()->hasNotificationActiveIs(false);
  }
}

void DecapGroupConfigMergeSm::stop() {
  configDir_.hasNotificationActiveIs(false);
  pendingMountWatch_.activeIs(false);
  for (auto it = decapGroupConfig_.begin(); it != decapGroupConfig_.end(); ++it) {
    it.value()->hasNotificationActiveIs(false);
  }
  // A mounter that goes away before its mount completes is told nothing.
  mounter_.delAll();
}

void DecapGroupConfigMergeSm::configIs(Vela::Ptr<ConfigInput const> const& source) {
  if (!source) config_.set(Vela::Name(), source);  // refused with the collection's range error
  if (!config_.contains(source->name())) config_.set(source->name(), source);
  decapGroupConfigIs(config_.get(source->name()));
}

void DecapGroupConfigMergeSm::decapGroupConfigIs(Vela::Ptr<ConfigInput const> const& source) {
  if (!source) decapGroupConfig_.set(Vela::Name(), nullptr);  // refused with the collection's range error
  Vela::Name const name = source->name();
  if (decapGroupConfig_.contains(name)) return;
  decapGroupConfig_.set(name, Vela::make<DecapGroupConfigReactor>(source, this));
  handleConfigSource(name);
}

void DecapGroupConfigMergeSm::mounterDone(DecapGroupConfigMounter const* mounter) {
  if (mounter_.get(mounter->name()).get() == mounter) mounter_.del(mounter->name());
}

void DecapGroupConfigMergeSm::handleInitialized() {
  SKEIN_TRACE(8, "handleInitialized");
  initialized_ = true;
  VELA_ASSERT_TEXT(mergedConfig_, "mergedConfig()");
  VELA_ASSERT_TEXT(mergedConfig_->decapGroups().empty(), "!mergedConfig()->decapGroups()");
  VELA_ASSERT_TEXT(!mergedConfig_->ready(), "!mergedConfig()->ready()");
  VELA_ASSERT_TEXT(configDir(), "configDir()");

  // The sources present now delay readiness until their mounts complete.
  std::vector<Vela::Name> entries;
  for (auto it = configDir()->entries().begin(); it != configDir()->entries().end(); ++it) {
    entries.push_back(it.key());
  }
  for (auto const& name : entries) {
    SKEIN_TRACE(8, "handleInitialized"
                       << " add pending mount " << name);
    pendingMountIs(name, true);
  }

  VELA_ASSERT_TEXT(cliConfig_, "cliConfig()");
  configIs(cliConfig_);

  if (pendingMount_.empty()) mergedConfig_->readyIs(true);

  for (auto const& name : entries) handleConfigDirEntry(name);
}

void DecapGroupConfigMergeSm::handleConfigDirEntry(Vela::Name const& configPath) {
  if (!initialized_) return;
  SKEIN_TRACE(8, "handleConfigDirEntry"
                     << " for " << configPath);
  if (!configDir()->entry(configPath)) {
    // A source must stay once it has appeared.
    errorLine("unhandled removal of dynamic input entry " + configPath);
    VELA_ASSERT_TEXT(configDir()->entry(configPath), "configDir()->entry(configPath)");
  }
  // Only the sources present at start delay readiness: nothing is recorded
  // as pending here.
  auto const mounter =
      Vela::make<DecapGroupConfigMounter>(configPath, Vela::Ptr<DecapGroupConfigMergeSm>(this));
  mounter_.set(configPath, mounter);
  auto const group = entityManager_->getMountGroup(mounter.get());
  group->doMount(dynamicInputPath(configPath), "Tunnel::Decap::ConfigInput", "r");
  group->doClose();
}

void DecapGroupConfigMergeSm::handleConfigSource(Vela::Name const& source) {
  SKEIN_TRACE(8, "handleConfigSource"
                     << " for " << source);
  VELA_ASSERT_TEXT(initialized(), "initialized()");
  auto const input = config_.get(source);
  if (!input) return;
  std::vector<Vela::Name> names;
  for (auto it = input->decapGroups().begin(); it != input->decapGroups().end(); ++it)
    names.push_back(it.key());
  for (auto const& name : names) handleDecapGroup(source, name);
}

void DecapGroupConfigMergeSm::handleDecapGroup(Vela::Name const& source, Vela::Name const& decapGroup) {
  SKEIN_TRACE(8, "handleDecapGroup"
                     << " for " << source << ", decapGroup " << decapGroup);
  VELA_ASSERT_TEXT(initialized(), "initialized()");
  auto const input = config_.get(source);
  if (input && input->decapGroup(decapGroup)) {
    sourceSet_.newMember(decapGroup)->sourceIs(source, true);
  } else if (auto const set = sourceSet_.get(decapGroup)) {
    set->sourceDel(source);
    if (set->sourceCount() == 0) sourceSet_.del(decapGroup);
  }
  setOutputForDecapGroup(decapGroup);
}

void DecapGroupConfigMergeSm::setOutputForDecapGroup(Vela::Name const& decapGroup) {
  SKEIN_TRACE(8, "setOutputForDecapGroup"
                     << " for decap group " << decapGroup);
  VELA_ASSERT_TEXT(initialized(), "initialized()");
  auto const set = sourceSet_.get(decapGroup);
  std::size_t const count = set ? set->sourceCount() : 0;
  if (count == 1) {
    Vela::Name const source = set->sources().begin().key();
    auto const input = config_.get(source);
    Vela::Ptr<DecapGroup const> const activeDecapGroup = input ? input->decapGroup(decapGroup) : nullptr;
    if (!activeDecapGroup) {
      errorLine("missing expected decap group " + decapGroup + " from " + source);
      VELA_ASSERT_TEXT(activeDecapGroup, "activeDecapGroup");
    }
    // The output refers to the source's own group: no copy.
    mergedConfig_->decapGroupIs(activeDecapGroup);
    SKEIN_TRACE(1, "setOutputForDecapGroup"
                       << " add merged config entry for " << decapGroup << " from source " << source);
  } else {
    // No source, or a conflict between several: no source wins.
    SKEIN_TRACE(1, "setOutputForDecapGroup"
                       << " remove merged config entry for " << decapGroup << " with source count " << count);
    mergedConfig_->decapGroupDel(decapGroup);
  }
}

void DecapGroupConfigMergeSm::handlePendingMount() {
  if (!initialized_) return;
  SKEIN_TRACE(8, "handlePendingMount"
                     << " pendingMounts " << pendingMount_.size());
  // Readiness is never withdrawn.
  if (pendingMount_.empty()) mergedConfig_->readyIs(true);
}

}  // namespace Tunnel::Decap
