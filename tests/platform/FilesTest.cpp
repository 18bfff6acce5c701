// Owner changes that root makes under a user's folder.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/Files.h"
#include "support/TestEnvironment.h"

namespace morvane::platform {
namespace {

namespace fs = std::filesystem;

TEST(FilesTest, AnOwnerChangeNeverFollowsAPlantedLink) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can hand a file to another account";
    }
    const passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) {
        GTEST_SKIP() << "no account named nobody";
    }
    test::TempDir dir;
    const fs::path secret = dir.path() / "root-only";
    test::writeFile(secret, "root's");
    ASSERT_EQ(::chown(secret.c_str(), 0, 0), 0);
    // The user puts a link where root is about to hand a file to them.
    const fs::path planted = dir.path() / "config.json";
    fs::create_symlink(secret, planted);

    EXPECT_FALSE(changeOwner(planted, "nobody"));

    struct stat target {};
    ASSERT_EQ(::stat(secret.c_str(), &target), 0);
    EXPECT_EQ(target.st_uid, 0u) << "the link's target was handed to the user";
    struct stat link {};
    ASSERT_EQ(::lstat(planted.c_str(), &link), 0);
    EXPECT_EQ(link.st_uid, nobody->pw_uid);

    const fs::path plain = dir.path() / "device.json";
    test::writeFile(plain, "{}");
    EXPECT_FALSE(changeOwner(plain, "nobody"));
    struct stat own {};
    ASSERT_EQ(::stat(plain.c_str(), &own), 0);
    EXPECT_EQ(own.st_uid, nobody->pw_uid);
}

}  // namespace
}  // namespace morvane::platform
