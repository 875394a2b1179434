// Allocation-failure sweep: each call of support/families.hpp is made again
// and again with its 1st, 2nd, ... allocation failing, until a run makes
// fewer allocations than the one set to fail (then the call must succeed).
// Every failed run must give the family's code, leave the outputs the call
// must not touch as they were, and leak nothing (the asan build checks the
// leaks).
#include <algorithm>

#include "support/families.hpp"

namespace {

TEST(AllocSweep, EveryAllocationFailsInTurn) {
    oltest::TempDir dir;
    const std::string d = dir.path().string();
    for (const auto& row : oltest::families::calls(d)) {
        if (row.allocCode == oltest::families::kNotSwept) continue;
        SCOPED_TRACE(row.name);
        long failed = 0;
        bool whole = false;
        for (long n = 1; n < 1000 && !whole; ++n) {
            oltest::families::Bytes out;
            int rc;
            long made;
            {
                oltest::FailAllocation fail(n);
                rc = row.run(d, out);
                made = ol::testing::allocationCount();
            }
            if (made < n) {  // the nth allocation never came: the call ran whole
                EXPECT_GE(rc, 0) << "with every allocation granted";
                whole = true;
            } else if (std::find(row.absorbed.begin(), row.absorbed.end(), n) != row.absorbed.end()) {
                EXPECT_GE(rc, 0) << "allocation " << n;
            } else {
                ++failed;
                EXPECT_EQ(rc, row.allocCode) << "allocation " << n;
                EXPECT_TRUE(!row.untouched || row.untouched(out)) << "allocation " << n;
            }
        }
        EXPECT_GT(failed, 0) << "the call made no tested allocation";
        EXPECT_TRUE(whole) << "still allocating after " << failed << " failures";
    }
}

}  // namespace
