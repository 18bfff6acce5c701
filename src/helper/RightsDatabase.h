#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "helper/Common.h"

namespace morvane {

/// The helper's rights database where polkit does not run: "rights.json" in the helper's folder,
/// one object per right name with "rule", "description" and "table". An administrator tightens
/// a right by setting its rule to "deny". Rules: "allow" grants, "deny" and anything unknown
/// refuse; a right that is not defined refuses.
class RightsDatabase : public AuthorizationRights {
public:
    RightsDatabase();
    explicit RightsDatabase(std::filesystem::path path);

    int rightGet(const std::string& name) override;
    int rightSet(const std::string& name, const std::string& rule, const std::string& description,
                 const std::string& table) override;
    /// 0 when the right's rule grants it, else a refusal status.
    int copyRight(const std::string& name);

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace morvane
