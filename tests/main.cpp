// SPDX-License-Identifier: LGPL-2.1-or-later
// Runs tests as GoogleTest's own main does, but a filter that matches none fails; with --suites NAME..., says instead
// which suites there are and are not beside those named.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>

static int compare_suites(const std::set<std::string> &named)
{
    std::set<std::string> present;
    const testing::UnitTest &program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); i++) {
        present.insert(program.GetTestSuite(i)->name());
    }
    std::set<std::string> different;
    std::ranges::set_symmetric_difference(present, named, std::inserter(different, different.end()));
    for (const std::string &suite : different) {
        printf("%s: %s\n", suite.c_str(), named.contains(suite) ? "named, but there are no such tests" : "not named");
    }
    return different.empty() ? 0 : 1;
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1 && argv[1] == std::string("--suites")) {
        return compare_suites({argv + 2, argv + argc});
    }
    const int failed = RUN_ALL_TESTS();
    if (testing::UnitTest::GetInstance()->test_to_run_count() == 0) {
        fputs("no test matches the filter\n", stderr);
        return 1;
    }
    return failed;
}
