// The epoll check against aov-kdev's stream, called with events already
// pending: it must drain them and arm its watch with nothing pending, so that
// only the driver's wake-up can make the watch ready. A driver that never
// wakes such a watch fails however late the check comes; a check that armed
// with an event pending would pass it.

#include <poll.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "KdevInstance.h"
#include "Suite.h"
#include "gtest/gtest.h"

namespace {

using aovcompliancetest::KdevNode;

class EpollArm : public KdevNode {
  protected:
    void TearDown() override {
        ctx_.reset();
        report_.reset();
        if (out_ != nullptr) {
            std::fclose(out_);
        }
        std::free(text_);
        KdevNode::TearDown();
    }

    // The "produced" count of aov-kdev's status file; -1 when unreadable.
    long produced() {
        std::ifstream status(node_.dir() + "/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("produced ", 0) == 0) {
                return std::strtol(line.c_str() + 9, nullptr, 10);
            }
        }
        return -1;
    }

    // Starts a session on aov-kdev with `fault`, waits until two events are
    // queued and none taken, then runs the epoll check; its line.
    std::string epollLineWithEventsPending(const std::string& fault) {
        start(fault);
        if (HasFatalFailure()) {
            return "";
        }
        aovcompliance::Options options;
        options.node = node_.dir() + "/kelo_aov";
        out_ = ::open_memstream(&text_, &size_);
        report_ = std::make_unique<aovcompliance::Report>(
            out_, aovcompliance::Report::Format::kPlain, false, "");
        ctx_ = std::make_unique<aovcompliance::Context>(options, *report_);
        EXPECT_TRUE(ctx_->arena().map());
        aovcompliance::openNodeChecks(*ctx_);
        EXPECT_TRUE(aovcompliance::startCheck(*ctx_));
        aovcompliance::notificationChecks(*ctx_);
        EXPECT_FALSE(ctx_->stopped()) << ctx_->stopReason();

        // The stream makes an event a frame (100 ms); nothing dequeues yet.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (produced() < 2 && std::chrono::steady_clock::now() < limit) {
            ::poll(nullptr, 0, 10);
        }
        EXPECT_GE(produced(), 2) << "aov-kdev queued no two events within 10 s of START";

        std::fflush(out_);
        const size_t before = size_;
        aovcompliance::epollReadableCheck(*ctx_);
        std::fflush(out_);
        const std::string line(text_ + before, size_ - before);
        (void)ctx_->close(ctx_->fd());
        return line;
    }

    char* text_ = nullptr;
    size_t size_ = 0;
    std::FILE* out_ = nullptr;
    std::unique_ptr<aovcompliance::Report> report_;
    std::unique_ptr<aovcompliance::Context> ctx_;
};

TEST_F(EpollArm, ACleanDriverWakesTheWatchArmedAfterThePendingEventsAreDrained) {
    EXPECT_EQ(epollLineWithEventsPending(""),
              "readiness: epoll readable (empty mask, then modified): OK\n");
}

TEST_F(EpollArm, ADriverThatNeverWakesAWatchArmedEmptyFailsThoughEventsWerePending) {
    const std::string line = epollLineWithEventsPending("wake-pollin-waiters-only");
    EXPECT_EQ(line.rfind("readiness: epoll readable (empty mask, then modified): FAIL (expected "
                         "EPOLLIN within 3000 ms of a watch armed with nothing pending, got none "
                         "while poll says POLLIN",
                         0),
              0u)
        << line;
}

}  // namespace
