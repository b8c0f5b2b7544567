// Test entry point: after every test the process heap must still be intact
// (with WINEDEBUG=warn+heap Wine then reports where it was damaged).
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace {

struct HeapCheckListener : testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& info) override
    {
        if (!HeapValidate(GetProcessHeap(), 0, nullptr)) {
            fprintf(stderr, "heap damaged after %s.%s\n", info.test_suite_name(), info.name());
            bDamaged = true;
        }
    }
    bool bDamaged = false;
};

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    auto* pListener = new HeapCheckListener;  // owned by the listener list
    testing::UnitTest::GetInstance()->listeners().Append(pListener);
    const int iResult = RUN_ALL_TESTS();
    return pListener->bDamaged ? 1 : iResult;
}
