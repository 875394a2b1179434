// Many families called at once: 8 threads each make every call of
// support/families.hpp, in an order of their own, on their own buffers and
// files, for 50 rounds; every result must be byte-identical to the same call
// made alone. Carries the "threads" label, so it also runs under
// ThreadSanitizer.
#include "support/families.hpp"

#include <thread>

namespace {

using oltest::families::Bytes;

// Fifty rounds take about a minute under ThreadSanitizer on a busy machine;
// ten rounds there still meet every call with every other (the order of
// each thread turns), the release build runs all fifty. The sanitizer's
// runtime is known by its entry point, which any compiler's runtime defines.
extern "C" __attribute__((weak)) void __tsan_init();
const int kRounds = &__tsan_init != nullptr ? 10 : 50;

TEST(FamiliesThreads, ConcurrentCallsMatchSerialCalls) {
    oltest::TempDir dir;
    auto list = oltest::families::calls(dir.path().string());
    std::erase_if(list, [](const auto& c) { return !c.concurrent; });
    // Everything a call produced, its result last.
    const auto run = [&](std::size_t i, const std::string& d) {
        Bytes out;
        const int r = list[i].run(d, out);
        oltest::families::append(out, &r, 1);
        return out;
    };
    std::vector<Bytes> want;
    for (std::size_t i = 0; i < list.size(); ++i) want.push_back(run(i, dir.path().string()));
    constexpr int kThreads = 8;
    std::vector<std::vector<std::string>> bad(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::string d = dir.file("t");
            d += std::to_string(t);
            oltest::fs::create_directories(d);
            for (int round = 0; round < kRounds; ++round)
                for (std::size_t k = 0; k < list.size(); ++k) {
                    const std::size_t i = (k + static_cast<std::size_t>(t) * 3 + static_cast<std::size_t>(round)) % list.size();
                    if (run(i, d) != want[i]) bad[t].push_back(list[i].name);
                }
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t)
        for (const auto& name : bad[t]) ADD_FAILURE() << "thread " << t << ": " << name << " differs";
}

}  // namespace
