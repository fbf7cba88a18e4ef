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
    for (bool oneThread : {true, false})
        for (Flag mode : {Flag::NoStatus, Flag::NullFlag, Flag::Clear, Flag::SetBefore, Flag::SetDuring}) {
            const std::string name = "case " + std::to_string(int(mode)) + (oneThread ? " one thread" : " many");
            test::MemoryBalance balance;
            uint8_t flag = mode == Flag::SetBefore ? 1 : 0;
            const ImageProcessingStatus status{mode == Flag::NullFlag ? nullptr : &flag};
            std::vector<std::atomic<int>> visits(kRows);
            bool threw = false;
            const auto run = [&] {
                try {
                    ManagedBuffer<float> scratch(1000);  // released while the exception passes
                    const auto rows = [&](int b, int e) {
                        for (int y = b; y < e; ++y) {
                            if (y == 3 && mode == Flag::SetDuring) flag = 1;  // the caller presses cancel
                            visits[y]++;
                        }
                    };
                    parallelFor(0, kRows, rows, mode == Flag::NoStatus ? nullptr : &status);
                } catch (const ImageProcessingStatus::cancelException& e) {
                    threw = true;
                    EXPECT_STREQ(e.what(), "ImageProcessingStatus cancelled");
                }
            };
            oneThread ? test::onOneThread(run) : run();
            EXPECT_EQ(threw, mode == Flag::SetBefore || mode == Flag::SetDuring) << name;
            for (int y = 0; y < kRows; ++y) ASSERT_EQ(visits[y].load(), 1) << name << " row " << y;
            EXPECT_TRUE(balance.balanced()) << name;
        }
    // An empty loop still checks.
    uint8_t flag = 1;
    const ImageProcessingStatus status{&flag};
    EXPECT_THROW(parallelFor(std::size_t(5), std::size_t(5), [](std::size_t, std::size_t) { FAIL(); }, &status),
                 ImageProcessingStatus::cancelException);
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
    EXPECT_EQ(log.types(), std::vector<LogMessageType>(3, LogMessageType::Error));
}

TEST(Frame, SignatureTypeNames) {
    const std::pair<std::string, std::string> cases[] = {
        {sig::typeName<float>(), "float"},
        {sig::typeName<uint8_t>(), "unsigned char"},
        {sig::typeName<uint16_t>(), "unsigned short"},
        {sig::typeName<int64_t>(), "__int64"},
        {sig::typeName<std::size_t>(), "unsigned __int64"},
        {sig::typeName<PixelBGRA<uint8_t>>(), "struct zorl::PixelBGRA<unsigned char>"},
        {sig::typeName<PixelRGBA<uint16_t>>(), "struct zorl::PixelRGBA<unsigned short>"},
        {sig::typeName<const PixelRGB<float>*>(), "const struct zorl::PixelRGB<float> *"},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
    // The text of a conversion entry point, assembled the way the families do it.
    const std::string text = "void __cdecl zorl::convertLoop<" + sig::typeName<float>() + "," +
                             sig::typeName<uint8_t>() + ">(" + sig::typeName<const float*>() + "," +
                             sig::typeName<uint8_t*>() + "," + sig::typeName<uint64_t>() + ")";
    EXPECT_EQ(text,
              "void __cdecl zorl::convertLoop<float,unsigned char>(const float *,unsigned char *,unsigned __int64)");
}

TEST(Frame, ErrorLineFormatAndChecks) {
    test::LogCapture log;
    logError("void __cdecl zorl::f(int)", "source is null");
    const float* none = nullptr;
    std::shared_ptr<int> empty, full = std::make_shared<int>(1);
    EXPECT_FALSE(checkNotNull(none, "S1", "no pixels"));
    EXPECT_FALSE(checkNotNull(empty, "S2", "no image"));
    EXPECT_TRUE(checkNotNull(full, "S3", "never logged") && checkThat(true, "S4", "never logged"));
    EXPECT_FALSE(checkThat(1 > 2, "S5", "width must be positive"));
    const int line = __LINE__ + 1;
    ZORL_ASSERT_REPORT(1 + 1 == 3);
    ZORL_ASSERT_REPORT(1 + 1 == 2);
    const std::vector<std::string> expected = {
        "void __cdecl zorl::f(int): source is null", "S1: no pixels", "S2: no image", "S5: width must be positive",
        std::string(__FILE__) + "(" + std::to_string(line) + "): 1 + 1 == 3"};
    EXPECT_EQ(log.lines(), expected);
    EXPECT_EQ(log.types(), std::vector<LogMessageType>(5, LogMessageType(3)));
}

}  // namespace
}  // namespace zorl
