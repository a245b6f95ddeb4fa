// In CI (CI=true) a FUSE test that cannot run fails instead of skipping.

#include <cstdlib>
#include <string>

#include "FuseSandbox.h"
#include "gtest/gtest.h"

namespace {

// Sets CI for the scope of one case and puts back what was there.
class CiVariable {
  public:
    CiVariable() {
        const char* now = std::getenv("CI");
        had_ = now != nullptr;
        if (had_) {
            saved_ = now;
        }
    }
    ~CiVariable() {
        if (had_) {
            ::setenv("CI", saved_.c_str(), 1);
        } else {
            ::unsetenv("CI");
        }
    }

  private:
    bool had_ = false;
    std::string saved_;
};

TEST(FuseSandbox, OnlyCiEqualToTrueRequiresTheFuseTestsToRun) {
    CiVariable keep;
    ::unsetenv("CI");
    EXPECT_FALSE(aovtest::fuseRequired());
    for (const char* value : {"", "false", "1", "TRUE", "true "}) {
        ::setenv("CI", value, 1);
        EXPECT_FALSE(aovtest::fuseRequired()) << '"' << value << '"';
    }
    ::setenv("CI", "true", 1);
    EXPECT_TRUE(aovtest::fuseRequired());
}

}  // namespace
