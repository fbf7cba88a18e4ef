// The log stream: one line per message, text exactly as written, to standard error
// unless a host installed its own sink.
#include <zorl/logger/logger.h>

#include <thread>

#include "support/test_support.h"

namespace zorl {
namespace {

TEST(Logger, DefaultSinkWritesOneLinePerMessageToStandardError) {
    ::testing::internal::CaptureStderr();
    logstream a = __zorllog();
    a << LogMessageType::Error << "void __cdecl f(int)" << std::string(": ") << "bad  input ";
    LOG(a);
    logstream b = __zorllog();
    b << LogMessageType::Info << "second";
    LOG(b);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "void __cdecl f(int): bad  input \nsecond\n");
}

TEST(Logger, InstalledSinkGetsTypeAndExactTextAndCanBeRemoved) {
    std::vector<std::pair<LogMessageType, std::string>> got;
    LogSink previous = setLogSink([&](LogMessageType t, const std::string& line) { got.emplace_back(t, line); });
    logstream s = __zorllog();
    s << LogMessageType::Warning << "n=" << std::size_t(42) << " d=" << int64_t(-3) << " u=" << 7u << " x=" << 1.5;
    LOG(s);
    details::logErrorMessage("prepared text");
    LogSink mine = setLogSink(previous);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].first, LogMessageType::Warning);
    EXPECT_EQ(got[0].second, "n=42 d=-3 u=7 x=1.5");
    EXPECT_EQ(got[1].first, LogMessageType::Error);
    EXPECT_EQ(got[1].second, "prepared text");
    EXPECT_TRUE(static_cast<bool>(mine));

    // With the host's sink gone, lines go to standard error again.
    ::testing::internal::CaptureStderr();
    details::logErrorMessage("back");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "back\n");
    EXPECT_EQ(got.size(), 2u);
}

TEST(Logger, LinesFromManyThreadsStayWhole) {
    constexpr int kThreads = 4, kLines = 200;
    test::LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                logstream s = __zorllog();
                s << LogMessageType::Error << "thread " << t << " line " << i;
                LOG(s);
            }
        });
    for (auto& th : threads) th.join();
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), std::size_t(kThreads * kLines));
    std::vector<int> next(kThreads, 0);
    for (const std::string& line : lines) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %d", &t, &i), 2) << line;
        ASSERT_EQ(line, "thread " + std::to_string(t) + " line " + std::to_string(i));
        EXPECT_EQ(i, next[t]++);  // each thread's lines arrive in its order
    }
}

}  // namespace
}  // namespace zorl
