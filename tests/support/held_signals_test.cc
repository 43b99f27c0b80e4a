#include "support/held_signals.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>

namespace {

// Runs these steps, and prints each when it is done: h and r begin a HeldSignals and a
// ReleasedSignals, a dot ends the latest, k has the signal sent.
void run(const std::string& steps, int signal) {
    std::signal(signal, SIG_DFL);  // nohup has it ignored
    struct Guard {
        std::optional<tarvo::HeldSignals> held;
        std::optional<tarvo::ReleasedSignals> released;
    };
    Guard guards[4];
    int depth = 0;
    for (const char step : steps) {
        if (step == 'h') guards[depth++].held.emplace();
        if (step == 'r') guards[depth++].released.emplace();
        if (step == 'k') ::raise(signal);
        if (step == '.') {
            guards[--depth].released.reset();
            guards[depth].held.reset();
        }
        static_cast<void>(::write(STDERR_FILENO, &step, 1) == 1);
    }
    ::_exit(0);
}

TEST(HeldSignals, TakeEffectBehindTheOutermostGuardOrInAReleasedPart) {
    const std::pair<const char*, const char*> fatal[] = {
        {"kx", ""},           {"hkx.x", "hkx"},        {"hhk.x.x", "hhk.x"}, {"h.kx", "h."},
        {"hkxr.x", "hkx"},    {"hrkx", "hr"},          {"hr.kx.x", "hr.kx"}, {"rkx", "r"},
        {"hrhkx.x", "hrhkx"}, {"hrh..kx.", "hrh..kx"},
    };
    testing::FLAGS_gtest_death_test_style = "fast";
    for (const int signal : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGXCPU}) {
        for (const auto& [steps, done] : fatal) {
            std::string pattern = "^";
            for (const char* letter = done; *letter != '\0'; ++letter) {
                pattern += *letter == '.' ? "[.]" : std::string(1, *letter);
            }
            EXPECT_EXIT(run(steps, signal), testing::KilledBySignal(signal), pattern + "$");
        }
        EXPECT_EXIT(run("hr..", signal), testing::ExitedWithCode(0), "^hr[.][.]$");
    }
}

}  // namespace
