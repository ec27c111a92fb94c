#include "updater/Updater.h"

#include <cstdio>

#include "core/SerialQueue.h"

namespace velko {

namespace {
const Logger& logger() {
    static const Logger log("app.velko.updater", "updates");
    return log;
}
}  // namespace

std::string updateAvailableMessage(const UpdateOffer& offer) {
    std::string format = kUpdateAvailableFormat;
    return format.replace(format.find("%s"), 2, offer.displayVersion);
}

void LoggingUpdatePresenter::presentUpdate(const UpdateOffer& offer) {
    logger().notice("updater: " + updateAvailableMessage(offer) + " " + offer.link);
}
void LoggingUpdatePresenter::presentUpToDate() { logger().notice(std::string("updater: ") + kUpToDateMessage); }
void LoggingUpdatePresenter::presentCheckFailed() {
    logger().notice(std::string("updater: ") + kUpdateCheckFailedMessage);
}

struct Updater::Check {
    std::shared_ptr<const UpdaterSettings> settings;
    std::shared_ptr<HttpRequesting> http;
    std::optional<Version> current;

    struct Result {
        Outcome outcome = Outcome::Failed;
        std::optional<UpdateOffer> offer;
    };

    std::optional<std::string> fetch(const std::string& url, const char* what) const {
        HttpRequest request{.url = url, .totalTimeout = std::chrono::seconds(30), .maxResponseBytes = kMaxFeedBytes};
        auto response = http->perform(request);
        if (!response) {
            logger().notice(std::string("updater: ") + what + " not fetched: " +
                            std::string(httpErrorKindName(response.error().kind)));
            return std::nullopt;
        }
        if (response->status != 200) {
            logger().notice(std::string("updater: ") + what + " answered HTTP " + std::to_string(response->status));
            return std::nullopt;
        }
        return std::move(response->body);
    }

    // Runs on the updater's queue.
    Result run() const {
        if (!current) return {};
        auto feed = fetch(settings->feedURL, "feed");
        if (!feed) return {};
        auto signature = fetch(signatureURL(settings->feedURL), "feed signature");
        // Not one item is read from a feed whose signature does not hold.
        if (!signature || !verifyFeedSignature(*feed, *signature, settings->publicKey)) {
            if (signature) logger().error("updater: the feed's signature does not verify; it is ignored");
            return {};
        }
        auto items = parseAppcast(*feed);
        if (!items) {
            logger().error("updater: the feed is not a well-formed appcast");
            return {};
        }
        auto offer = newestUpdate(*items, *current);
        return {offer ? Outcome::UpdateFound : Outcome::UpToDate, std::move(offer)};
    }
};

Updater::Updater(Dependencies dependencies)
    : m_settings(std::make_shared<const UpdaterSettings>(std::move(dependencies.settings))),
      m_check(std::make_shared<Check>(
          Check{m_settings, std::move(dependencies.http), parseVersion(dependencies.currentVersion)})),
      m_presenter(dependencies.presenter ? std::move(dependencies.presenter)
                                         : std::make_shared<LoggingUpdatePresenter>()),
      m_queue(dependencies.queue ? std::move(dependencies.queue) : std::make_shared<SerialQueue>("app.velko.updater")),
      m_probeInterval(dependencies.probeInterval) {
    if (!m_check->current) logger().error("updater: this build's version cannot be read; every check fails");
}

void Updater::probe() { scheduleProbe(Duration::zero()); }

void Updater::scheduleProbe(Duration delay) {
    if (m_probeScheduled) return;
    m_probeScheduled = true;
    std::weak_ptr<Updater> weak = weak_from_this();
    auto task = [check = m_check, weak] {
        auto result = check->run();
        runOnMainWeak(weak, [outcome = result.outcome](Updater& self) { self.finishProbe(outcome); });
    };
    if (delay == Duration::zero())
        m_queue->post(std::move(task));
    else
        m_queue->postDelayed(delay, std::move(task));
}

void Updater::finishProbe(Outcome outcome) {
    m_probeScheduled = false;
    // Silent unless there is something to show; then the visible check shows it.
    if (outcome == Outcome::UpdateFound) checkForUpdates();
    scheduleProbe(m_probeInterval);
}

void Updater::checkForUpdates() {
    if (m_visibleCheckQueued) return;
    m_visibleCheckQueued = true;
    std::weak_ptr<Updater> weak = weak_from_this();
    m_queue->post([check = m_check, weak] {
        auto result = check->run();
        runOnMainWeak(weak, [result = std::move(result)](Updater& self) {
            self.finishVisibleCheck(result.outcome, result.offer);
        });
    });
}

void Updater::finishVisibleCheck(Outcome outcome, const std::optional<UpdateOffer>& offer) {
    m_visibleCheckQueued = false;
    switch (outcome) {
        case Outcome::UpdateFound: m_presenter->presentUpdate(*offer); break;
        case Outcome::UpToDate: m_presenter->presentUpToDate(); break;
        case Outcome::Failed: m_presenter->presentCheckFailed(); break;
    }
}

}  // namespace velko
