#pragma once
// Budgets that a test hands to the code under test (read and connect time-outs) scale with this factor. Under
// an emulator (a cross build's suite under qemu-user) every exchange takes several times as long as natively,
// and a budget tuned to keep native runs quick would cut off answers that are merely late.

namespace zelt_test {

#ifdef ZELT_TEST_EMULATOR
constexpr int kTimeScale = 10;
#else
constexpr int kTimeScale = 1;
#endif

}  // namespace zelt_test
