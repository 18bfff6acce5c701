#pragma once

#include <QWidget>
#include <memory>

#include "ui/LocalRulesWindowViewController.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace morvane::ui {

/// The local rules panel as Qt widgets: the switch, the three inputs, the set button, the
/// message line and the JSON of the accepted rule, wired to a LocalRulesWindowViewController.
class LocalRulesPanel : public QWidget {
public:
    explicit LocalRulesPanel(QWidget* parent = nullptr);
    ~LocalRulesPanel() override;

    LocalRulesWindowViewController& controller() { return *controller_; }

    QCheckBox* useFilterButton() const { return useFilter_; }
    QLineEdit* domainField() const { return domain_; }
    QLineEdit* ruleField() const { return rule_; }
    QLineEdit* resolverField() const { return resolvers_; }
    QPushButton* setButton() const { return set_; }
    QLabel* errorLabel() const { return error_; }
    QLineEdit* jsonField() const { return json_; }

private:
    QCheckBox* useFilter_;
    QLineEdit* domain_;
    QLineEdit* rule_;
    QLineEdit* resolvers_;
    QPushButton* set_;
    QLabel* error_;
    QLineEdit* json_;
    // The controller holds the controls weakly; these own them.
    std::shared_ptr<Button> buttonControl_;
    std::shared_ptr<TextField> domainControl_;
    std::shared_ptr<TextField> ruleControl_;
    std::shared_ptr<TextField> resolversControl_;
    std::shared_ptr<TextField> errorControl_;
    std::shared_ptr<TextField> jsonControl_;
    std::unique_ptr<LocalRulesWindowViewController> controller_;
};

}  // namespace morvane::ui
