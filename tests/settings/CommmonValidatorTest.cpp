#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "settings/CommmonValidator.h"

namespace morvane {
namespace {

TEST(CommmonValidatorTest, ServerAddresses) {
    for (const char* good :
         {"https://127.0.0.1:8443", "https://rpc.example.net", "http://rpc.example.net:8443/",
          "https://a-b.example.co.uk/api/x", "://host.example.org", "https://10.1.2.3"}) {
        EXPECT_TRUE(CommmonValidator::isValidURL(good)) << good;
    }
    for (const char* bad : {"https://Rpc.example.net",  // the pattern knows lower case only
                            "rpc.example.net",          // the "://" is required
                            "https://127.0.0.1:18443",  // ports have at most four digits
                            "https://rpc.example.net/a b", "ftp://rpc.example.net", ""}) {
        EXPECT_FALSE(CommmonValidator::isValidURL(bad)) << bad;
    }
}

TEST(CommmonValidatorTest, EmailsAndIPv4AddressesMustMatchAsAWhole) {
    EXPECT_TRUE(CommmonValidator::isValidEmail("first.last+tag@mail.example.com"));
    for (const char* bad : {"not an address", "user@host", "user@example.com trailing"}) {
        EXPECT_FALSE(CommmonValidator::isValidEmail(bad)) << bad;
    }
    EXPECT_TRUE(CommmonValidator::isValidIPv4("192.168.0.1"));
    EXPECT_TRUE(CommmonValidator::isValidIPv4("255.255.255.255"));
    for (const char* bad : {"256.1.1.1", "1.2.3", "1.2.3.4 "}) {
        EXPECT_FALSE(CommmonValidator::isValidIPv4(bad)) << '"' << bad << '"';
    }
}

TEST(CommmonValidatorTest, ChecksMayRunOnManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                if (!CommmonValidator::isValidURL("https://rpc.example.net:8443") ||
                    CommmonValidator::isValidEmail("x")) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace morvane
