#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <set>

#include "device/ComputerNameManager.h"

namespace morvane {
namespace {

using Account = platform::AccountQueries::Account;
using Lookup = platform::AccountQueries::Lookup;

// A machine of the test's making. This one has no directory service, so the answers that
// SSSD or LDAP would give for a directory user are set here.
struct FakeMachine : platform::AccountQueries {
    std::string user = "alice";
    std::string host = "box";
    std::set<std::string> localFile = {"alice", "root"};
    std::map<std::string, Lookup> nameService = {
        {"alice", {Account{"alice", "Alice Example,Room 4,,"}, 0, ""}}};
    std::map<std::string, std::string> env;
    mutable std::atomic<int> lookUps{0};

    std::string currentUserName() const override { return user; }
    Lookup lookUp(const std::string& name) const override {
        ++lookUps;
        const auto found = nameService.find(name);
        return found == nameService.end() ? Lookup{} : found->second;
    }
    bool isInLocalAccountFiles(const std::string& name) const override {
        return localFile.count(name) != 0;
    }
    std::string hostName() const override { return host; }
    std::optional<std::string> environment(const std::string& name) const override {
        const auto found = env.find(name);
        return found == env.end() ? std::nullopt : std::optional(found->second);
    }
};

std::shared_ptr<FakeMachine> machine(const std::string& user, const std::string& host = "box") {
    auto made = std::make_shared<FakeMachine>();
    made->user = user;
    made->host = host;
    return made;
}

TEST(ComputerNameManagerTest, ALocalUserIsNamedAfterTheMachineWithoutAskingTheDirectory) {
    // The test is on the bare word "local", not on ".local".
    for (const auto& [host, expected] :
         std::map<std::string, std::string>{{"box", "alice@box.local"},
                                            {"box.local", "alice@box.local"},
                                            {"intralocal", "alice@intralocal"},
                                            {"box.localdomain", "alice@box.localdomain.local"}}) {
        const auto fake = machine("alice", host);
        EXPECT_EQ(ComputerNameManager(fake).getComputerName(), expected);
        EXPECT_EQ(fake->lookUps, 0) << "a local user never causes a directory query";
    }
}

TEST(ComputerNameManagerTest, ADirectoryUserTakesTheNameAfterTheColonOrTheLocalForm) {
    for (const auto& [gecos, expected] :
         std::map<std::string, std::string>{{"Kerberos:bob@CORP.EXAMPLE", "bob@CORP.EXAMPLE.local"},
                                            {"Kerberos:bob@corp.local,Room 4", "bob@corp.local"},
                                            {"X509:<T>CA<S>bob:extra", "<T>CA<S>bob.local"},
                                            {"Bob Example", "bob@box.local"},
                                            {"Kerberos:", "bob@box.local"},
                                            {"", "bob@box.local"}}) {
        auto fake = machine("bob");
        fake->nameService["bob"] = {Account{"bob", gecos}, 0, ""};
        const ComputerNameManager names(fake);
        EXPECT_FALSE(names.isLocalUser());
        EXPECT_EQ(names.getComputerName(), expected) << gecos;
    }

    // A service that vouches for the account and then fails the directory query.
    struct Flaky : FakeMachine {
        Lookup lookUp(const std::string& name) const override {
            if (++lookUps > 1) {
                return {std::nullopt, EIO, "Input/output error"};
            }
            return {Account{name, "Kerberos:carol@CORP"}, 0, ""};
        }
    };
    auto flaky = std::make_shared<Flaky>();
    flaky->user = "carol";
    EXPECT_EQ(ComputerNameManager(flaky).getComputerName(), "carol@box.local");

    // No service knows the account: no identity of another authority, so it counts as local.
    const ComputerNameManager unknown(machine("dave"));
    EXPECT_TRUE(unknown.isLocalUser());
    EXPECT_EQ(unknown.getComputerName(), "dave@box.local");
    EXPECT_EQ(unknown.fullUserName(), "dave");
}

TEST(ComputerNameManagerTest, AddressFullNameAndTheUserBehindRoot) {
    for (const auto& [host, expected] :
         std::map<std::string, std::string>{{"box.local", "alice@box.com"},
                                            {"mylocalbox.local", "alice@mycombox.com"},
                                            {"mylocalbox", "alice@mylocalbox"},
                                            {"local", "alice@com"}}) {
        EXPECT_EQ(ComputerNameManager(machine("alice", host)).getEMail(), expected);
    }

    auto alice = machine("alice");
    alice->env["PWD"] = "/home/bob";
    EXPECT_EQ(ComputerNameManager(alice).nsUserName(), "alice");
    EXPECT_EQ(ComputerNameManager(alice).fullUserName(), "Alice Example");
    alice->nameService["alice"].account->gecos = ",Room 4";
    EXPECT_EQ(ComputerNameManager(alice).fullUserName(), "alice");

    auto root = machine("root", "box.local");
    const ComputerNameManager names(root);
    EXPECT_EQ(names.nsUserName(), "root") << "no PWD, nothing better to say";
    root->env["PWD"] = "/home/alice/src/project";
    EXPECT_EQ(names.getEMail(), "alice@box.com");
    EXPECT_EQ(names.getComputerName(), "root@box.local") << "the device is named as the process";
}

TEST(ComputerNameManagerTest, UserNameFromPathComponents) {
    for (const auto& [path, expected] :
         std::map<std::string, std::string>{{"/home/alice/x", "alice"},
                                            {"/Users/alice", "alice"},
                                            {"/home/alice/", "alice"},
                                            {"//home//alice", "alice"},
                                            {"/home", "/home"},
                                            {"/home/", "/home/"},
                                            {"/", "/"},
                                            {"", ""},
                                            {"home/alice/x", "x"},
                                            {"home/alice", "home/alice"}}) {
        EXPECT_EQ(ComputerNameManager::userNameFrom(path), expected) << '"' << path << '"';
    }
}

}  // namespace
}  // namespace morvane
