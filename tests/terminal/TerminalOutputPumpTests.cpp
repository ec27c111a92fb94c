#include <fcntl.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/HoldingPage.h"
#include "terminal/TerminalLogger.h"
#include "terminal/TerminalOutputPump.h"

using namespace velko;

// A producer much faster than the page: the pump stops reading at its cap, so
// what waits for delivery stays bounded, and once the page catches up every
// byte arrives, in order.
TEST(TerminalOutputPump, StopsReadingAtItsCapAndLosesNothing) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    test::TempDir dir;
    auto logger = TerminalLogger::create(dir.file("log"));
    auto page = std::make_shared<test::HoldingPage>();
    constexpr uint64_t kCap = 64 * 1024;
    constexpr uint64_t kOneRead = 65536 * 4 / 3 + 256;  // the envelope of one full read
    page->hold();
    TerminalOutputPump pump(Uuid::random(), fds[0], logger, page, kCap);
    pump.start();

    std::string sent;
    for (int i = 0; sent.size() < 1024 * 1024; ++i) sent += "line " + std::to_string(i) + "\r\n";
    std::thread writer([&] {
        size_t done = 0;
        while (done < sent.size()) {
            ssize_t n = ::write(fds[1], sent.data() + done, std::min<size_t>(4095, sent.size() - done));
            if (n > 0) done += static_cast<size_t>(n);
            else std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pipe full: the pump holds back
        }
        ::close(fds[1]);
    });

    std::string received;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    // The page takes nothing until the pump has parked at its cap.
    while (pump.pendingBytes() < kCap && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(2)))
        EXPECT_LE(pump.pendingBytes(), kCap + kOneRead);
    while (received.size() < sent.size() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        page->release(true);
        received = page->output();
        EXPECT_LE(pump.pendingBytes(), kCap + kOneRead);
    }
    writer.join();
    EXPECT_TRUE(received == sent) << "output reordered or changed";
    EXPECT_LE(pump.peakPendingBytes(), kCap + kOneRead);  // at most one read past the cap
    EXPECT_GE(pump.peakPendingBytes(), kCap);          // the cap was actually reached
    pump.stop();
    ::close(fds[0]);
}

// finish() reads what is left and returns although the write end is still
// open, even while a writer never stops (a background job still holding the
// terminal).
TEST(TerminalOutputPump, FinishReadsWhatIsLeftAndReturnsWhileAWriterKeepsWriting) {
    for (bool endless : {false, true}) {
        SCOPED_TRACE(endless ? "endless writer" : "quiet writer");
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
        auto page = std::make_shared<test::HoldingPage>();
        ASSERT_EQ(::write(fds[1], "last words", 10), 10);
        std::atomic<bool> writing{endless};
        std::thread writer([&] {
            const std::string line(4000, 'y');
            while (writing) {
                if (::write(fds[1], line.data(), line.size()) < 0) std::this_thread::yield();
            }
        });
        if (endless) page->hold();  // so the pump parks at its cap
        {
            TerminalOutputPump pump(Uuid::random(), fds[0], nullptr, page, 64 * 1024);
            pump.start();
            pump.finish();
        }
        // Behind an endless writer more may follow; otherwise nothing does.
        EXPECT_EQ(endless ? page->output().substr(0, 10) : page->output(), "last words");
        writing = false;
        writer.join();
        ::close(fds[1]);
        ::close(fds[0]);
    }
}

// A log that cannot keep up (here a FIFO nobody reads yet, as a stalled disk)
// holds the reader back too: its backlog stays near the cap, and once the log
// moves again every line arrives.
TEST(TerminalOutputPump, AStalledLogHoldsTheReaderBack) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    test::TempDir dir;
    const std::string fifo = dir.file("log");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto logger = TerminalLogger::create(fifo);
    auto page = std::make_shared<test::EventRecorder>();
    constexpr uint64_t kCap = 64 * 1024;
    TerminalOutputPump pump(Uuid::random(), fds[0], logger, page, kCap);
    pump.start();

    std::atomic<bool> writing{true};
    std::atomic<uint64_t> written{0};
    std::thread writer([&] {
        const std::string line(4000, 'y');
        while (writing && written < 4 * 1024 * 1024) {
            ssize_t n = ::write(fds[1], line.data(), line.size());
            if (n > 0) written += static_cast<uint64_t>(n);
            else std::this_thread::yield();
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (logger->pendingBytes() < kCap && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    ASSERT_GE(logger->pendingBytes(), kCap);
    // Parked: the backlog grows by at most one more read (in base64) while the log stays stalled.
    for (int i = 0; i < 200; ++i) {
        EXPECT_LE(logger->pendingBytes(), kCap + 65536 * 4 / 3 + 4);
        std::this_thread::yield();
    }
    EXPECT_LT(written.load(), 4u * 1024 * 1024) << "the writer was never held back";

    // The log moves again: read the FIFO until the writer is done and the backlog gone.
    std::atomic<bool> reading{true};
    uint64_t logged = 0;
    // Opened for reading and writing, the FIFO always has a reader and never
    // reports an end, so the log's own opens and closes cannot race with it.
    const int logEnd = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(logEnd, 0);
    std::thread reader([&] {
        char buffer[65536];
        for (;;) {
            ssize_t n = ::read(logEnd, buffer, sizeof buffer);
            if (n > 0) logged += static_cast<uint64_t>(n);
            else if (reading) std::this_thread::yield();
            else break;
        }
    });
    writing = false;
    writer.join();
    ::close(fds[1]);
    pump.finish();
    logger->drainForTesting();
    reading = false;
    reader.join();
    ::close(logEnd);
    EXPECT_GT(logged, written.load()) << "every line, base64 and all, reached the log";
    EXPECT_EQ(logger->pendingBytes(), 0u);
    ::close(fds[0]);
}
