#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace morvane::test {

/// The project's source and build folders, for tests that run tools or programs.
inline std::filesystem::path sourceDir() {
    return MORVANE_TEST_SOURCE_DIR;
}
inline std::filesystem::path binaryDir() {
    return MORVANE_TEST_BINARY_DIR;
}

/// Sets environment variables for the life of the object and puts the old values back.
class ScopedEnv {
public:
    ScopedEnv() = default;
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;
    ~ScopedEnv();

    void set(const std::string& name, const std::string& value);
    void unset(const std::string& name);

private:
    void remember(const std::string& name);
    std::map<std::string, std::optional<std::string>> saved_;
};

/// A temporary folder, removed with everything in it when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "morvane-test");
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

/// A throw-away user home: HOME, the XDG folders and MORVANECLOUD_SYSROOT point into a
/// temporary tree for the life of the object, so tests never touch the real account.
class TempHome {
public:
    TempHome();
    /// Ends the processes still running under this sysroot, then removes the folder.
    ~TempHome();
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::filesystem::path& root() const { return dir_.path(); }
    std::filesystem::path home() const { return dir_.path() / "home"; }
    std::filesystem::path configHome() const { return home() / ".config"; }
    std::filesystem::path dataHome() const { return home() / ".local/share"; }
    std::filesystem::path cacheHome() const { return home() / ".cache"; }
    std::filesystem::path sysroot() const { return dir_.path() / "sysroot"; }

    ScopedEnv& env() { return env_; }

private:
    TempDir dir_;
    ScopedEnv env_;
};

/// A whole file; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);
/// Creates the parent folders too.
void writeFile(const std::filesystem::path& path, const std::string& content);

}  // namespace morvane::test
