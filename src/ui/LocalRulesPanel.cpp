#include "ui/LocalRulesPanel.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

namespace morvane::ui {

namespace {

// A line edit or a label as the controller's text field.
template <class Widget>
class WidgetField : public TextField {
public:
    explicit WidgetField(Widget* widget) : widget_(widget) {}
    std::string stringValue() const override {
        return widget_ ? widget_->text().toStdString() : std::string();
    }
    void setStringValue(const std::string& value) override {
        if (widget_) {
            widget_->setText(QString::fromStdString(value));
        }
    }
    void setEnabled(bool enabled) override {
        if (widget_) {
            widget_->setEnabled(enabled);
        }
    }

private:
    QPointer<Widget> widget_;
};

using LineEditField = WidgetField<QLineEdit>;
using LabelField = WidgetField<QLabel>;

class CheckBoxButton : public Button {
public:
    explicit CheckBoxButton(QCheckBox* box) : box_(box) {}
    int state() const override { return box_ && box_->isChecked() ? 1 : 0; }

private:
    QPointer<QCheckBox> box_;
};

}  // namespace

LocalRulesPanel::LocalRulesPanel(QWidget* parent)
    : QWidget(parent, Qt::Tool),
      useFilter_(new QCheckBox(QStringLiteral("Use a local forwarding rule"), this)),
      domain_(new QLineEdit(this)),
      rule_(new QLineEdit(this)),
      resolvers_(new QLineEdit(this)),
      set_(new QPushButton(QStringLiteral("Set"), this)),
      error_(new QLabel(this)),
      json_(new QLineEdit(this)),
      controller_(std::make_unique<LocalRulesWindowViewController>()) {
    setObjectName(QStringLiteral("LocalRulesWindow"));
    setWindowTitle(QStringLiteral("Local Rules"));
    domain_->setPlaceholderText(QStringLiteral("example.org"));
    rule_->setPlaceholderText(QStringLiteral("10.0.0.0/8, 10.0.0.1-10.0.0.9 or 10.1.2.3"));
    resolvers_->setPlaceholderText(QStringLiteral("1.1.1.1,8.8.8.8"));
    error_->setStyleSheet(QStringLiteral("color: #b3261e;"));
    error_->setWordWrap(true);
    json_->setReadOnly(true);
    json_->setMinimumWidth(420);
    // The inputs take text only while the switch is on.
    for (QLineEdit* input : {domain_, rule_, resolvers_}) {
        input->setEnabled(false);
    }

    auto* form = new QFormLayout();
    form->addRow(QStringLiteral("Domain"), domain_);
    form->addRow(QStringLiteral("IP or network"), rule_);
    form->addRow(QStringLiteral("Resolvers"), resolvers_);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(useFilter_);
    layout->addLayout(form);
    layout->addWidget(set_, 0, Qt::AlignRight);
    layout->addWidget(error_);
    layout->addWidget(new QLabel(QStringLiteral("Rule in effect"), this));
    layout->addWidget(json_);

    buttonControl_ = std::make_shared<CheckBoxButton>(useFilter_);
    domainControl_ = std::make_shared<LineEditField>(domain_);
    ruleControl_ = std::make_shared<LineEditField>(rule_);
    resolversControl_ = std::make_shared<LineEditField>(resolvers_);
    errorControl_ = std::make_shared<LabelField>(error_);
    jsonControl_ = std::make_shared<LineEditField>(json_);
    controller_->useFilterButton = buttonControl_;
    controller_->domainTextField = domainControl_;
    controller_->ruleTextField = ruleControl_;
    controller_->resolverTextField = resolversControl_;
    controller_->errorLabel = errorControl_;
    controller_->jsonTextField = jsonControl_;
    controller_->viewDidLoad();

    QObject::connect(useFilter_, &QCheckBox::toggled, this,
                     [this] { controller_->useLocalFiltering(*buttonControl_); });
    QObject::connect(set_, &QPushButton::clicked, this, [this] { controller_->setValues(); });
    // A long rule reads from its start.
    QObject::connect(json_, &QLineEdit::textChanged, this, [this] { json_->setCursorPosition(0); });
}

LocalRulesPanel::~LocalRulesPanel() = default;

}  // namespace morvane::ui
