// Certificates from tools/devserver over HTTPS (its own certificate, trusted through
// MORVANECLOUD_CA_FILE) into a trust store under the sysroot: DER made PEM, the local folder,
// and update-ca-certificates run on the sysroot's folders only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "helper/CertHelper.h"
#include "helper/CertificateTrust.h"
#include "helper/DownloadCertManager.h"
#include "support/DevServer.h"
#include "support/TestEnvironment.h"

namespace morvane {
namespace {

using test::readFile;
using ::testing::HasSubstr;

class CertificateTest : public ::testing::Test {
protected:
    CertificateTest() { home.env().set("MORVANECLOUD_CA_FILE", server.certificatePath().string()); }

    std::string helperLog() const {
        return readFile(home.sysroot() / "var/lib/morvanecloud/tarnHelper.log");
    }
    std::string serverPem() const {
        return *helper::certificatePem(readFile(server.certificatePath()));
    }
    static bool haveUpdateCommand() {
        return std::filesystem::exists("/usr/sbin/update-ca-certificates");
    }

    test::TempHome home;
    test::DevServer server;
};

TEST_F(CertificateTest, InstallCommandDownloadTrustsTheCertificateOnceAndOnlyInTheSysroot) {
    const std::string url = server.baseUrl() + "/ssl/ca.der";
    DownloadCertManager::downloadAndInstallCertFrom(url).wait();
    const auto placed = home.sysroot() / "usr/local/share/ca-certificates/morvanecloud-ca.crt";
    EXPECT_EQ(readFile(placed), serverPem()) << "DER fetched, PEM placed";
    EXPECT_THAT(helperLog(), HasSubstr("Install Cert Requesting from " + url));
    EXPECT_THAT(helperLog(), HasSubstr("Cert request complete <response URL"));
    EXPECT_FALSE(std::filesystem::exists("/usr/local/share/ca-certificates/morvanecloud-ca.crt"));
    if (haveUpdateCommand()) {
        EXPECT_THAT(readFile(home.sysroot() / "etc/ssl/certs/ca-certificates.crt"),
                    HasSubstr(serverPem()));
    }

    DownloadCertManager::downloadAndInstall(url);
    EXPECT_THAT(helperLog(), HasSubstr("Failed to add cert The certificate is already installed"));

    DownloadCertManager::downloadAndInstall(server.baseUrl() + "/api/device");
    EXPECT_THAT(helperLog(), HasSubstr("Failed to retrieve cert HTTP status 405"));
}

TEST_F(CertificateTest, HelperDownloadsToItsFolderAndImportsPathsWithBlanks) {
    const auto target = CertHelper::downloadCert(server.baseUrl() + "/ssl/ca.der", "../ca.der");
    ASSERT_TRUE(target);
    EXPECT_EQ(*target, home.sysroot() / "var/lib/morvanecloud/ca.der") << "the last component only";
    EXPECT_THAT(helperLog(), HasSubstr("File is saved to " + target->string()));

    const auto blanks = home.root() / "my server cert.der";
    std::filesystem::copy_file(*target, blanks);
    EXPECT_TRUE(CertHelper::importCert(blanks.string()));
    EXPECT_EQ(readFile(home.sysroot() /
                       "usr/local/share/ca-certificates/morvanecloud-my_server_cert.crt"),
              serverPem());
    EXPECT_THAT(helperLog(), HasSubstr("Command "));

    // A failed download gives the target all the same and leaves no file.
    const auto missing = CertHelper::downloadCert("https://127.0.0.1:1/ssl/ca.der", "none.der");
    ASSERT_TRUE(missing);
    EXPECT_FALSE(std::filesystem::exists(*missing));
    EXPECT_THAT(helperLog(), HasSubstr("Download Error:"));
    EXPECT_TRUE(CertHelper::importCert(missing->string()));
}

TEST(CertificatePemTest, DerIsConvertedPemKeptAndAnythingElseRefused) {
    EXPECT_EQ(helper::certificatePem("not a certificate"), std::nullopt);
    EXPECT_EQ(helper::certificatePem(std::string("\x30\x05\x01\x02", 4)), std::nullopt)
        << "a length that does not cover the data";
    EXPECT_EQ(helper::certificatePem("-----BEGIN CERTIFICATE-----\nAAAA\n"), std::nullopt);
    const auto pem = helper::certificatePem(std::string("\x30\x03\x02\x01\x05", 5));
    ASSERT_TRUE(pem);
    EXPECT_EQ(*pem, "-----BEGIN CERTIFICATE-----\nMAMCAQU=\n-----END CERTIFICATE-----\n");
    EXPECT_EQ(helper::certificatePem("junk\n" + *pem + "tail"), *pem);
    EXPECT_EQ(helper::certificateName("/a/b/my cert.der"), "my_cert");
    EXPECT_EQ(helper::certificateName(".."), "certificate");
}

}  // namespace
}  // namespace morvane
