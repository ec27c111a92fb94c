#pragma once
// Updater: tells the user when a newer velko is published. It reads the
// signed feed (see UpdateFeed.h) and offers the newest version above this
// one; the offer opens the version's https page in the browser, and nothing
// is downloaded or run.
//
// There is an updater only when Info.json carries a public key and a feed can
// be resolved; without one the menu entry stays disabled and no check runs.
// At launch a silent probe runs: it shows nothing unless it finds an update,
// and then runs exactly one visible check, which shows it. The probe repeats
// daily. A check the user asks for also says when velko is up to date or the
// check failed.
//
// Threads: the methods are called on the main thread. Checks run one after
// another on the updater's own queue ("app.velko.updater"); their outcome
// comes back to the main thread for the presenter. The tasks on the queue
// never hold the updater itself, so it is always released on the main thread.
// Owned by the composition root.

#include <atomic>
#include <memory>
#include <string>

#include "core/HttpRequesting.h"
#include "core/Log.h"
#include "core/TaskQueue.h"
#include "updater/UpdateFeed.h"

namespace velko {

// User-facing texts.
inline constexpr const char* kUpdateAvailableFormat = "新しいバージョン %s があります";
inline constexpr const char* kUpToDateMessage = "velko は最新です";
inline constexpr const char* kUpdateCheckFailedMessage = "アップデートを確認できませんでした";
std::string updateAvailableMessage(const UpdateOffer& offer);

// Where the outcome of a visible check goes: a dialog in the window, a log
// line in the headless host. Main thread.
class UpdatePresenting {
public:
    virtual ~UpdatePresenting() = default;
    // "新しいバージョン … があります"; the user may then open offer.link.
    virtual void presentUpdate(const UpdateOffer& offer) = 0;
    virtual void presentUpToDate() = 0;
    virtual void presentCheckFailed() = 0;
};

// The headless presenter: one log line per outcome.
class LoggingUpdatePresenter final : public UpdatePresenting {
public:
    void presentUpdate(const UpdateOffer& offer) override;
    void presentUpToDate() override;
    void presentCheckFailed() override;
};

class Updater : public std::enable_shared_from_this<Updater> {
public:
    struct Dependencies {
        UpdaterSettings settings;
        std::shared_ptr<HttpRequesting> http;
        std::shared_ptr<UpdatePresenting> presenter;
        std::string currentVersion = std::string(velkoVersion());
        std::shared_ptr<TaskQueue> queue = {};  // default: serial "app.velko.updater"
        Duration probeInterval = std::chrono::hours(24);
    };

    enum class Outcome { UpdateFound, UpToDate, Failed };

    explicit Updater(Dependencies dependencies);

    // The silent launch probe; it repeats every probeInterval.
    void probe();
    // The visible check of the menu entry. While one waits to run, another
    // request adds nothing.
    void checkForUpdates();

    const std::string& feedURL() const { return m_settings->feedURL; }

private:
    struct Check;  // what a check needs, shared with the tasks on the queue
    void finishProbe(Outcome outcome);
    void finishVisibleCheck(Outcome outcome, const std::optional<UpdateOffer>& offer);
    void scheduleProbe(Duration delay);

    std::shared_ptr<const UpdaterSettings> m_settings;
    std::shared_ptr<Check> m_check;
    std::shared_ptr<UpdatePresenting> m_presenter;
    std::shared_ptr<TaskQueue> m_queue;
    Duration m_probeInterval;
    bool m_visibleCheckQueued = false;
    bool m_probeScheduled = false;
};

}  // namespace velko
