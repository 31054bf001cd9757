// Test main that runs every selected test in a process of its own. The daemon
// is built of process-wide singletons (and the emulated platform reads its
// configuration once per process), so tests must not share a process. ctest
// already runs one test per process; this makes running a test binary by hand
// behave the same.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr char kChildEnv[] = "ORV_TEST_ISOLATED";

// The full names of the tests the given flags select, as gtest lists them.
std::vector<std::string> SelectedTests(const std::vector<std::string>& args) {
    std::string command = "'/proc/" + std::to_string(getpid()) + "/exe' --gtest_list_tests";
    for (const std::string& arg : args) {
        if (arg.rfind("--gtest_filter=", 0) == 0) {
            command += " '" + arg + "'";
        }
    }
    std::vector<std::string> tests;
    FILE* list = popen(command.c_str(), "r");
    if (list == nullptr) {
        return tests;
    }
    std::string suite;
    char line[4096];
    while (fgets(line, sizeof(line), list) != nullptr) {
        std::string text(line);
        text = text.substr(0, text.find_first_of("#\n"));
        while (!text.empty() && text.back() == ' ') {
            text.pop_back();
        }
        if (text.empty()) {
            continue;
        }
        if (text[0] != ' ') {
            suite = text;
        } else {
            tests.push_back(suite + text.substr(text.find_first_not_of(' ')));
        }
    }
    pclose(list);
    return tests;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    ::testing::InitGoogleTest(&argc, argv);
    if (std::getenv(kChildEnv) != nullptr || ::testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    std::vector<std::string> tests = SelectedTests(args);
    if (tests.size() <= 1) {
        return RUN_ALL_TESTS();
    }
    setenv(kChildEnv, "1", 1);
    int passed = 0;
    std::vector<std::string> failed;
    for (const std::string& test : tests) {
        std::fflush(stdout);
        pid_t pid = fork();
        if (pid == 0) {
            std::string filter = "--gtest_filter=" + test;
            execl("/proc/self/exe", argv[0], filter.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            ++passed;
        } else {
            failed.push_back(test);
        }
    }
    for (const std::string& test : failed) {
        std::printf("FAILED: %s\n", test.c_str());
    }
    std::printf("%d passed, %zu failed\n", passed, failed.size());
    return failed.empty() ? 0 : 1;
}
