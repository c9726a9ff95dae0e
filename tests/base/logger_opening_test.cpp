// The system log is opened once a process, so each of these logs in a process of its own and
// nothing in this executable logs outside of one.

#include <ztlib/logger.h>

#include <tests/support/capture.h>
#include <tests/support/process.h>

#include <gtest/gtest.h>

#include <cstdio>

using namespace zt_test;

namespace {

void print_openings() {
    for (const auto& opening : system_log().openings())
        printf("%s %d %d\n", opening.identity.c_str(), opening.options, opening.facility);
}

TEST(LoggerOpening, HappensOnceUnderTheNameOfThatMoment) {
    const ChildResult child = run_in_child([] {
        logger_syslog_name = "first";
        logger_log(4, "m", "f", "x");
        logger_syslog_name = "second";
        logger_log(4, "m", "f", "y");
        print_openings();
    });
    EXPECT_EQ(child.out, "first 0 24\n");
}

TEST(LoggerOpening, IsPutOffToTheFirstRecordThatFindsTheFlagSet) {
    const ChildResult child = run_in_child([] {
        logger_to_syslog = 0;
        logger_log(4, "m", "f", "x");
        printf("%zu\n", system_log().openings().size());
        logger_to_syslog = 1;
        logger_log(4, "m", "f", "y");
        print_openings();
    });
    EXPECT_EQ(child.out, "0\nztlib 0 24\n");
}

TEST(LoggerOpening, NeverHappensWithAllSinksOff) {
    const ChildResult child = run_in_child([] {
        logger_to_syslog = 0;
        logger_log(3, "m", "f", "x");
        print_openings();
        printf("%zu", system_log().records().size());
    });
    EXPECT_EQ(child.out, "0");
    EXPECT_EQ(child.err, "");
}

}  // namespace
