#include "support/held_signals.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "support/file_helpers.h"
#include "support/unique_fd.h"
#include "test_helpers.h"

namespace {

using tarvo::HeldSignals;
using tarvo::ReleasedSignals;
using tarvo::UniqueFd;
using tarvo::test::start_child;

// How far a child came that runs these steps: h and r begin a HeldSignals and a ReleasedSignals,
// a dot ends the latest, k has the signal sent. Ends with ! when the signal ended it.
std::string progress(const std::string& steps, int signal) {
    int ends[2];
    if (::pipe(ends) != 0) return "no pipe";
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    struct Guard {
        std::optional<HeldSignals> held;
        std::optional<ReleasedSignals> released;
    };
    const pid_t child = start_child([&] {
        std::signal(signal, SIG_DFL);  // nohup has it ignored
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
            writeAll(writer.get(), &step, 1);
        }
        return 0;
    });
    writer.reset();
    std::string done;
    char letter = '\0';
    while (::read(reader.get(), &letter, 1) == 1) done += letter;
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFSIGNALED(status) && WTERMSIG(status) == signal ? done + "!" : done;
}

TEST(HeldSignals, TakeEffectBehindTheOutermostGuardOrInAReleasedPart) {
    const struct {
        const char* steps;
        const char* progress;
    } cases[] = {
        {"kx", "!"},           {"hkx.x", "hkx!"},        {"hhk.x.x", "hhk.x!"}, {"h.kx", "h.!"},
        {"hkxr.x", "hkx!"},    {"hrkx", "hr!"},          {"hr.kx.x", "hr.kx!"}, {"rkx", "r!"},
        {"hrhkx.x", "hrhkx!"}, {"hrh..kx.", "hrh..kx!"}, {"hr..", "hr.."},
    };
    for (const int signal : {SIGALRM, SIGTERM, SIGINT, SIGHUP, SIGXCPU}) {
        for (const auto& [steps, expected] : cases) {
            EXPECT_EQ(progress(steps, signal), expected) << steps << ", signal " << signal;
        }
    }
}

}  // namespace
