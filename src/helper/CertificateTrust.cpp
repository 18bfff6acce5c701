#include "helper/CertificateTrust.h"

#include <cctype>
#include <cstdlib>
#include <system_error>

#include "helper/HelperFiles.h"
#include "sys/Files.h"
#include "helper/ShellCommand.h"
#include "sys/SystemPaths.h"

namespace morvane::helper {

namespace {

constexpr const char* kBegin = "-----BEGIN CERTIFICATE-----";
constexpr const char* kEnd = "-----END CERTIFICATE-----";

/// A DER certificate is one SEQUENCE whose length covers the data exactly.
bool looksLikeDer(const std::string& data) {
    if (data.size() < 4 || static_cast<unsigned char>(data[0]) != 0x30) {
        return false;
    }
    const auto first = static_cast<unsigned char>(data[1]);
    std::size_t length = 0;
    std::size_t header = 2;
    if (first < 0x80) {
        length = first;
    } else {
        const std::size_t count = first & 0x7f;
        if (count == 0 || count > 4 || data.size() < 2 + count) {
            return false;
        }
        for (std::size_t i = 0; i < count; ++i) {
            length = (length << 8) | static_cast<unsigned char>(data[2 + i]);
        }
        header += count;
    }
    return header + length == data.size();
}

std::string base64(const std::string& data) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    std::size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        const unsigned v = static_cast<unsigned char>(data[i]) << 16 |
                           static_cast<unsigned char>(data[i + 1]) << 8 |
                           static_cast<unsigned char>(data[i + 2]);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    if (i + 1 == data.size()) {
        const unsigned v = static_cast<unsigned char>(data[i]) << 16;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += "==";
    } else if (i + 2 == data.size()) {
        const unsigned v = static_cast<unsigned char>(data[i]) << 16 |
                           static_cast<unsigned char>(data[i + 1]) << 8;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

bool underSysroot() {
    const char* sysroot = std::getenv("MORVANECLOUD_SYSROOT");
    return sysroot != nullptr && *sysroot != '\0';
}

}  // namespace

std::optional<std::string> certificatePem(const std::string& data) {
    const auto begin = data.find(kBegin);
    if (begin != std::string::npos) {
        const auto end = data.find(kEnd, begin);
        if (end == std::string::npos) {
            return std::nullopt;
        }
        return data.substr(begin, end + std::string(kEnd).size() - begin) + "\n";
    }
    if (!looksLikeDer(data)) {
        return std::nullopt;
    }
    std::string pem = std::string(kBegin) + "\n";
    const std::string encoded = base64(data);
    for (std::size_t at = 0; at < encoded.size(); at += 64) {
        pem += encoded.substr(at, 64) + "\n";
    }
    return pem + kEnd + "\n";
}

std::string certificateName(const std::string& fileName) {
    std::string stem = std::filesystem::path(fileName).stem().string();
    for (char& c : stem) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 || (std::isalnum(byte) == 0 && c != '.' && c != '-' && c != '_')) {
            c = '_';
        }
    }
    if (stem.empty() || stem.find_first_not_of('.') == std::string::npos) {
        return "certificate";
    }
    return stem;
}

std::filesystem::path trustedCertificatePath(const std::string& name) {
    return sys::systemPath("/usr/local/share/ca-certificates") / ("morvanecloud-" + name + ".crt");
}

std::string trustUpdateCommand() {
    if (!underSysroot()) {
        return "update-ca-certificates 2>&1";
    }
    // The same command on folders of the sysroot only: its list, its links, its hooks.
    const auto at = [](const char* path) { return shellQuoted(sys::systemPath(path).string()); };
    return "mkdir -p " + at("/usr/share/ca-certificates") + " " + at("/etc/ssl/certs") + " " +
           at("/etc/ca-certificates/update.d") + " && update-ca-certificates --certsconf " +
           at("/etc/ca-certificates.conf") + " --certsdir " + at("/usr/share/ca-certificates") +
           " --localcertsdir " + at("/usr/local/share/ca-certificates") + " --etccertsdir " +
           at("/etc/ssl/certs") + " --hooksdir " + at("/etc/ca-certificates/update.d") + " 2>&1";
}

AddResult addTrustedCertificate(const std::string& pem, const std::string& name,
                                std::filesystem::path& placed, std::string& error) {
    placed = trustedCertificatePath(name);
    std::string ignored;
    if (const auto present = sys::readWholeFile(placed, &ignored); present && *present == pem) {
        error = "The certificate is already installed at " + placed.string();
        return AddResult::alreadyThere;
    }
    std::error_code made;
    std::filesystem::create_directories(placed.parent_path(), made);
    if (made) {
        error = "cannot create " + placed.parent_path().string() + ": " + made.message();
        return AddResult::failed;
    }
    return sys::writeFileAtomically(placed, pem, 0644, error) ? AddResult::added : AddResult::failed;
}

}  // namespace morvane::helper
