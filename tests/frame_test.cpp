// The frame every family builds on: the parallel loop and its cancellation check, the
// scope guard, signature texts and the error line.
#include <atomic>
#include <stdexcept>

#include <zorl/common/managed_memory.h>

#include "core/error_log.h"
#include "core/parallel.h"
#include "core/signature.h"
#include "support/test_support.h"

namespace zorl {
namespace {

enum class Flag { NoStatus, NullFlag, Clear, SetBefore, SetDuring };

TEST(Frame, CancellationComesOnlyAfterTheWholeLoop) {
    constexpr int kRows = 257;
    const struct {
        Flag flag;
        bool cancels;
    } cases[] = {{Flag::NoStatus, false}, {Flag::NullFlag, false}, {Flag::Clear, false},
                 {Flag::SetBefore, true}, {Flag::SetDuring, true}};
    for (bool oneThread : {true, false})
        for (const auto& c : cases) {
            test::MemoryBalance balance;
            uint8_t flag = c.flag == Flag::SetBefore ? 1 : 0;
            ImageProcessingStatus status;
            status.cancelFlag = c.flag == Flag::NullFlag ? nullptr : &flag;
            const ImageProcessingStatus* arg = c.flag == Flag::NoStatus ? nullptr : &status;
            std::vector<std::atomic<int>> visits(kRows);
            bool threw = false;
            auto run = [&] {
                try {
                    ManagedBuffer<float> scratch(1000);  // released while the exception passes
                    parallelFor(
                        0, kRows,
                        [&](int b, int e) {
                            for (int y = b; y < e; ++y) {
                                if (y == 3 && c.flag == Flag::SetDuring) flag = 1;  // the caller presses cancel
                                visits[y]++;
                            }
                        },
                        arg);
                } catch (const ImageProcessingStatus::cancelException& e) {
                    threw = true;
                    EXPECT_STREQ(e.what(), "ImageProcessingStatus cancelled");
                }
            };
            if (oneThread)
                test::onOneThread(run);
            else
                run();
            const std::string name = "case " + std::to_string(int(c.flag)) + (oneThread ? " one thread" : " many");
            EXPECT_EQ(threw, c.cancels) << name;
            for (int y = 0; y < kRows; ++y) ASSERT_EQ(visits[y].load(), 1) << name << " row " << y;
            EXPECT_TRUE(balance.balanced()) << name;
        }
}

TEST(Frame, EmptyLoopStillChecksCancellation) {
    uint8_t flag = 1;
    ImageProcessingStatus status{&flag};
    int calls = 0;
    EXPECT_THROW(parallelFor(std::size_t(5), std::size_t(5), [&](std::size_t, std::size_t) { ++calls; }, &status),
                 ImageProcessingStatus::cancelException);
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(ImageProcessingStatus{}.isCancelled());
    EXPECT_NO_THROW(ImageProcessingStatus::throwIfCancelled(nullptr));
}

TEST(Frame, ScopeExitRunsSwallowsAndLogs) {
    test::LogCapture log;
    int ran = 0;
    { ScopeExit guard([&] { ++ran; }); }
    {
        ScopeExit guard([&] { ++ran; });
        guard.dismiss();
    }
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(log.count(), 0u);

    EXPECT_NO_THROW({ ScopeExit guard([] { throw std::runtime_error("disk gone"); }); });
    EXPECT_NO_THROW({ ScopeExit guard([] { throw 42; }); });
    // While another exception unwinds the scope, the guard's own exception must not
    // terminate the process either.
    EXPECT_THROW(
        {
            ScopeExit guard([] { throw std::logic_error("second"); });
            throw std::out_of_range("first");
        },
        std::out_of_range);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Exception thrown during ~ScopeExit. Cause: disk gone",
                                                     "Unknown exception thrown during ~ScopeExit.",
                                                     "Exception thrown during ~ScopeExit. Cause: second"}));
    for (LogMessageType t : log.types()) EXPECT_EQ(t, LogMessageType::Error);
}

TEST(Frame, SignatureTypeNames) {
    const std::pair<std::string, std::string> cases[] = {
        {sig::typeName<float>(), "float"},
        {sig::typeName<uint8_t>(), "unsigned char"},
        {sig::typeName<uint16_t>(), "unsigned short"},
        {sig::typeName<int>(), "int"},
        {sig::typeName<uint64_t>(), "unsigned __int64"},
        {sig::typeName<int64_t>(), "__int64"},
        {sig::typeName<std::size_t>(), "unsigned __int64"},
        {sig::typeName<PixelRGB<float>>(), "struct zorl::PixelRGB<float>"},
        {sig::typeName<PixelBGRA<uint8_t>>(), "struct zorl::PixelBGRA<unsigned char>"},
        {sig::typeName<PixelRGBA<uint16_t>>(), "struct zorl::PixelRGBA<unsigned short>"},
        {sig::typeName<PixelARGB<float>>(), "struct zorl::PixelARGB<float>"},
        {sig::typeName<const float*>(), "const float *"},
        {sig::typeName<uint8_t*>(), "unsigned char *"},
        {sig::typeName<const PixelRGB<float>*>(), "const struct zorl::PixelRGB<float> *"},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
    // The text of a conversion entry point, assembled the way the families do it.
    EXPECT_EQ("void __cdecl zorl::convertLoop<" + sig::typeName<float>() + "," + sig::typeName<uint8_t>() + ">(" +
                  sig::typeName<const float*>() + "," + sig::typeName<uint8_t*>() + "," + sig::typeName<uint64_t>() + ")",
              "void __cdecl zorl::convertLoop<float,unsigned char>(const float *,unsigned char *,unsigned __int64)");
}

TEST(Frame, ErrorLineFormatAndChecks) {
    test::LogCapture log;
    logError("void __cdecl zorl::f(int)", "source is null");
    const float* none = nullptr;
    std::shared_ptr<int> empty, full = std::make_shared<int>(1);
    EXPECT_FALSE(checkNotNull(none, "S1", "no pixels"));
    EXPECT_FALSE(checkNotNull(empty, "S2", "no image"));
    EXPECT_TRUE(checkNotNull(full, "S3", "never logged"));
    EXPECT_TRUE(checkThat(true, "S4", "never logged"));
    EXPECT_FALSE(checkThat(1 > 2, "S5", "width must be positive"));
    const int line = __LINE__ + 1;
    ZORL_ASSERT_REPORT(1 + 1 == 3);
    ZORL_ASSERT_REPORT(1 + 1 == 2);
    const std::vector<std::string> expected = {
        "void __cdecl zorl::f(int): source is null", "S1: no pixels", "S2: no image", "S5: width must be positive",
        std::string(__FILE__) + "(" + std::to_string(line) + "): 1 + 1 == 3"};
    EXPECT_EQ(log.lines(), expected);
    for (LogMessageType t : log.types()) EXPECT_EQ(static_cast<int>(t), 3);
}

}  // namespace
}  // namespace zorl
