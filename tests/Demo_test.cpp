// Runs the built tamber-demo at tiny sizes: every scene, both factorizations and both precisions must run to
// completion with exit status 0 (the demo itself fails on a residual above its limit, on solutions of the
// updated and the new factor that disagree, and on RankMod failures), report no allocation in the steps after
// the first, and reject bad command lines with a message and status 2. No timing is asserted.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// <build>/tools/tamber-demo, found from this test's own path <build>/tests/Demo_test; empty when absent.
std::string demoPath() {
    char buffer[4096];
    const ssize_t len = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (len <= 0) return "";
    buffer[len] = '\0';
    std::string path(buffer);
    for (int up = 0; up < 2; ++up) {
        const std::string::size_type slash = path.rfind('/');
        if (slash == std::string::npos) return "";
        path.resize(slash);
    }
    path += "/tools/tamber-demo";
    return access(path.c_str(), X_OK) == 0 ? path : "";
}

struct DemoRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the demo with `args` (already shell-quoted where needed), capturing both streams.
DemoRun runDemo(const std::string& args) {
    DemoRun run;
    const std::string errFile = ::testing::TempDir() + "tamber-demo-stderr-" + std::to_string(getpid());
    const std::string command = "'" + demoPath() + "' " + args + " 2>'" + errFile + "'";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof(chunk), pipe)) > 0) run.out.append(chunk, got);
    const int raw = pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    std::ifstream err(errFile);
    std::stringstream text;
    text << err.rdbuf();
    run.err = text.str();
    std::remove(errFile.c_str());
    return run;
}

std::vector<std::string> linesWith(const std::string& text, const std::string& needle) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find(needle) != std::string::npos) lines.push_back(line);
    return lines;
}

#define SKIP_WITHOUT_DEMO()                                                                   \
    if (demoPath().empty()) GTEST_SKIP() << "tamber-demo is not built next to this test (" \
                                         << "<build>/tools/tamber-demo); build the target tamber-demo"

struct Case {
    const char* args;
    bool switching;  // phase 3 runs
};

void PrintTo(const Case& c, std::ostream* os) { *os << "tamber-demo " << c.args; }

class DemoRuns : public ::testing::TestWithParam<Case> {};

TEST_P(DemoRuns, CompletesWithoutAllocatingAfterTheFirstStep) {
    SKIP_WITHOUT_DEMO();
    const Case c = GetParam();
    SCOPED_TRACE(c.args);
    const DemoRun run = runDemo(c.args);
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.find('\r'), std::string::npos) << "a progress line was written to a pipe";

    EXPECT_EQ(linesWith(run.out, "Phase 1 · analysis").size(), 1u);
    EXPECT_EQ(linesWith(run.out, "Phase 2 · time steps: assemble → factor → solve → refine").size(), 1u);
    EXPECT_EQ(linesWith(run.out, "Phase 3 · switching").size(), c.switching ? 1u : 0u);
    EXPECT_EQ(linesWith(run.out, "Summary: ").size(), 1u);

    // One allocation line per phase, each reporting zero steady-state allocations from both counters.
    const std::vector<std::string> alloc = linesWith(run.out, "allocations per step after the first");
    ASSERT_EQ(alloc.size(), c.switching ? 2u : 1u) << run.out;
    for (const std::string& line : alloc) {
        EXPECT_NE(line.find(" 0   (max 0; kiv allocator 0, operator new 0; first step "), std::string::npos)
            << line;
    }
    EXPECT_EQ(linesWith(run.out, "!!").size(), 0u) << run.out;
    // Each timed row carries a median, a minimum and a maximum.
    for (const char* row : {"assemble (build, setBlocks)", "whole step", "residual after refinement"}) {
        const std::vector<std::string> lines = linesWith(run.out, row);
        ASSERT_EQ(lines.size(), 1u) << row;
        std::istringstream in(lines[0].substr(lines[0].find(row) + std::string(row).size()));
        std::vector<std::string> fields;
        for (std::string f; in >> f;)
            if (f != "ms" && f != "µs" && f != "s") fields.push_back(f);
        EXPECT_EQ(fields.size(), 3u) << lines[0];
    }
}

INSTANTIATE_TEST_SUITE_P(
    TinyScenes, DemoRuns,
    ::testing::Values(Case{"--scene boxes --size 3 --steps 3 --threads 0 --switch 6", true},
                      Case{"--scene boxes --size 4 --steps 4 --threads 2 --float --switch 9", true},
                      Case{"--scene chain --size 8 --steps 3 --threads 1", true},
                      Case{"--scene ragdolls --size=2 --steps=3 --threads=2 --switch=11", true},
                      Case{"--scene cloth --size 4 --steps 3 --threads 0 --switch 0 --double", false}));

TEST(DemoCommandLine, HelpNamesEveryOption) {
    SKIP_WITHOUT_DEMO();
    const DemoRun run = runDemo("--help");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.rfind("Usage: tamber-demo [options]\n", 0), 0u) << run.out;
    for (const char* option : {"--scene", "--size", "--threads", "--float", "--double", "--steps", "--switch",
                               "--quiet", "--help", "boxes", "chain", "ragdolls", "cloth"})
        EXPECT_NE(run.out.find(option), std::string::npos) << option;
    EXPECT_EQ(linesWith(run.out, "Phase 2 ·").size(), 0u) << "--help must not run the demo";
}

TEST(DemoCommandLine, BadOptionsExitWithStatusTwoAndAMessage) {
    SKIP_WITHOUT_DEMO();
    struct Bad {
        const char* args;
        const char* message;
    };
    const Bad cases[] = {
        {"--x", "tamber-demo: unknown option '--x' (see --help)\n"},
        {"--size 3 --fast", "tamber-demo: unknown option '--fast' (see --help)\n"},
        {"stray", "tamber-demo: unexpected argument 'stray' (see --help)\n"},
        {"--size", "tamber-demo: option '--size' needs a value (see --help)\n"},
        {"--size abc", "tamber-demo: option '--size' expects a whole number from 1 to 2000000, got 'abc' (see --help)\n"},
        {"--size -3", "tamber-demo: option '--size' expects a whole number from 1 to 2000000, got '-3' (see --help)\n"},
        {"--steps 1", "tamber-demo: option '--steps' expects a whole number from 2 to 100000, got '1' (see --help)\n"},
        {"--threads 7x", "tamber-demo: option '--threads' expects a whole number from 0 to 256, got '7x' (see --help)\n"},
        {"--scene moon", "tamber-demo: unknown scene 'moon': choose boxes, chain, ragdolls or cloth (see --help)\n"},
        {"--size 5000", "tamber-demo: --size 5000 is too large for the boxes scene (at most 1000)\n"},
        {"--quiet=yes", "tamber-demo: option '--quiet' takes no value (see --help)\n"},
    };
    for (const Bad& bad : cases) {
        SCOPED_TRACE(bad.args);
        const DemoRun run = runDemo(bad.args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err, bad.message);
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
