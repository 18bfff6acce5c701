#include <gtest/gtest.h>

#include <any>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Dependencies.h"
#include "core/NotificationPublisher.h"
#include "core/TestData.h"
#include "messages/JSONCoding.h"
#include "platform/NotificationCenter.h"
#include "support/MainLoop.h"
#include "support/TestEnvironment.h"
#include "ui/LocalRulesWindowViewController.h"

namespace morvane {
namespace {

using Controller = LocalRulesWindowViewController;

class PlainField : public ui::TextField {
public:
    std::string stringValue() const override { return text; }
    void setStringValue(const std::string& value) override {
        text = value;
        ++writes;
    }
    void setEnabled(bool on) override { enabled = on; }
    std::string text;
    bool enabled = false;
    int writes = 0;
};

class PlainSwitch : public ui::Button {
public:
    int state() const override { return on; }
    int on = 0;
};

constexpr const char* kStoredPolicy =
    R"({"id":7,"jsonrpc":"2.0","result":{"filters":[{"resolvers":["9.9.9.9"]}]}})";

class LocalRulesTest : public ::testing::Test {
protected:
    void SetUp() override {
        Dependencies::build({
            Service::make<NotificationPublisher>(Service::LifeCycle::global,
                                                 [this](Dependencies&) {
                                                     return std::make_shared<NotificationPublisher>(
                                                         NotificationPublisher{center});
                                                 }),
            Service::global<TestData>(),
        });
        subscription = center->subscribe("deviceConfigRefreshed",
                                         [this](const platform::Notification& notification) {
                                             posted.push_back(notification.object);
                                         });
    }
    void TearDown() override { Dependencies::build(std::vector<Service>{}); }

    void storePolicy(const std::string& text) {
        test::writeFile(home.dataHome() / "MorvaneCloud" / "device.json", text);
    }

    std::unique_ptr<Controller> makePanel() {
        auto panel = std::make_unique<Controller>();
        panel->useFilterButton = useFilter;
        panel->domainTextField = domain;
        panel->ruleTextField = rule;
        panel->resolverTextField = resolvers;
        panel->errorLabel = error;
        panel->jsonTextField = json;
        panel->viewDidLoad();
        return panel;
    }

    /// Types the three fields and presses Set.
    void set(Controller& panel, const std::string& d, const std::string& r, const std::string& s) {
        domain->text = d;
        rule->text = r;
        resolvers->text = s;
        panel.setValues();
    }

    std::optional<std::vector<ForwardingRule>> held() {
        return Dependencies::shared()->resolve<TestData>()->testForwardingRules;
    }

    /// Lets the posted events arrive; a post is delivered on the main queue.
    void drain() {
        bool done = false;
        platform::MainQueue::async([&done] { done = true; });
        ASSERT_TRUE(test::runMainLoopUntil([&done] { return done; }));
    }

    test::TempHome home;
    std::shared_ptr<platform::NotificationCenter> center = platform::NotificationCenter::create();
    std::shared_ptr<platform::NotificationCenter::Subscription> subscription;
    std::vector<std::any> posted;
    std::shared_ptr<PlainSwitch> useFilter = std::make_shared<PlainSwitch>();
    std::shared_ptr<PlainField> domain = std::make_shared<PlainField>();
    std::shared_ptr<PlainField> rule = std::make_shared<PlainField>();
    std::shared_ptr<PlainField> resolvers = std::make_shared<PlainField>();
    std::shared_ptr<PlainField> error = std::make_shared<PlainField>();
    std::shared_ptr<PlainField> json = std::make_shared<PlainField>();
};

TEST(LocalRulesDecisionTest, EveryRefusalAndAcceptanceInItsOrder) {
    struct Row {
        const char* domain;
        const char* rule;
        const char* resolvers;
        const char* message;  // nullptr: taken
    };
    const Row rows[] = {
        {"", "", "", Controller::kEmptyRule},
        {"", "", ",,,", Controller::kEmptyRule},
        {"example.org", "", "", nullptr},
        {"", "", "1.1.1.1,,8.8.8.8", nullptr},
        {"", "", "1.1.1.1, 8.8.8.8", Controller::kInvalidResolvers},
        {"", "", " 1.1.1.1", Controller::kInvalidResolvers},
        {"", "nonsense", "1.1.1.x", Controller::kInvalidResolvers},
        {"", "", "10.0.0.0/8", Controller::kInvalidResolvers},
        {"", "10.0.0.0/8", "", nullptr},
        {"", "10.0.0.0/33", "", Controller::kInvalidRule},
        {"", "1.2.3.4-1.2.3.9", "", nullptr},
        {"", "010.1.1.1", "", nullptr},
        {"", "10.1.2.3", "", nullptr},
        {"", "256.1.1.1", "", Controller::kInvalidRule},
        {"corp.example", "example.org", "10.0.0.53", Controller::kInvalidRule},
    };
    for (const auto& row : rows) {
        const ForwardingRule made = Controller::makeRule(row.domain, row.rule, row.resolvers);
        const auto refusal = Controller::refusal(made);
        if (row.message == nullptr) {
            EXPECT_FALSE(refusal.has_value())
                << row.domain << " | " << row.rule << " | " << row.resolvers << ": " << *refusal;
        } else {
            EXPECT_EQ(refusal, std::optional<std::string>(row.message))
                << row.domain << " | " << row.rule << " | " << row.resolvers;
        }
    }
}

TEST(LocalRulesDecisionTest, ResolversSplitAtEveryCommaWithNothingTrimmed) {
    using V = std::vector<std::string>;
    EXPECT_EQ(Controller::splitResolvers(""), V{});
    EXPECT_EQ(Controller::splitResolvers(",,"), V{});
    EXPECT_EQ(Controller::splitResolvers("1.1.1.1,,8.8.8.8,"), (V{"1.1.1.1", "8.8.8.8"}));
    EXPECT_EQ(Controller::splitResolvers("1.1.1.1, 8.8.8.8"), (V{"1.1.1.1", " 8.8.8.8"}));
    // "010.1.1.1" is no dotted quad for the validator, but reads as a network.
    EXPECT_FALSE(Controller::resolversAreValid({"010.1.1.1"}));
    EXPECT_TRUE(Controller::ruleIsValid(std::string("010.1.1.1")));
    EXPECT_TRUE(Controller::ruleIsValid(std::nullopt));
    EXPECT_TRUE(Controller::ruleIsValid(std::string()));
}

TEST_F(LocalRulesTest, ADomainAloneIsTakenShownAndAnnouncedOverTheStoredPolicy) {
    storePolicy(kStoredPolicy);
    auto panel = makePanel();
    set(*panel, "example.org", "", "");
    EXPECT_EQ(error->text, "");
    const auto rules = held();
    ASSERT_TRUE(rules.has_value());
    ASSERT_EQ(rules->size(), 1u);
    EXPECT_EQ((*rules)[0].domain, "example.org");
    EXPECT_FALSE((*rules)[0].rule.has_value());
    EXPECT_EQ((*rules)[0].resolvers, std::vector<std::string>{});
    EXPECT_EQ(json->text, R"({"domain":"example.org","resolvers":[]})");

    drain();
    ASSERT_EQ(posted.size(), 1u);
    const auto* copy = std::any_cast<DeviceConfiguration>(&posted[0]);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(encodeJSON(*copy),
              R"({"id":7,"jsonrpc":"2.0","result":{"filters":[{"resolvers":["9.9.9.9"]},)"
              R"({"domain":"example.org","resolvers":[]}]}})");
    // The stored policy is the panel's starting point and is never written.
    EXPECT_EQ(test::readFile(home.dataHome() / "MorvaneCloud" / "device.json"), kStoredPolicy);
}

TEST_F(LocalRulesTest, TwoRulesInARowLeaveOnlyTheSecond) {
    storePolicy(kStoredPolicy);
    auto panel = makePanel();
    set(*panel, "a.example", "", "10.0.0.1");
    set(*panel, "b.example", "10.0.0.0/8", "10.0.0.2,10.0.0.3");
    ASSERT_TRUE(held().has_value());
    ASSERT_EQ(held()->size(), 1u);
    EXPECT_EQ((*held())[0].domain, "b.example");

    drain();
    ASSERT_EQ(posted.size(), 2u);
    const auto* second = std::any_cast<DeviceConfiguration>(&posted[1]);
    ASSERT_NE(second, nullptr);
    const auto& filters = *second->result->filters;
    ASSERT_EQ(filters.size(), 2u) << "the stored entry and the second rule only";
    EXPECT_EQ(filters[1].domain, "b.example");
    EXPECT_EQ(filters[1].rule, "10.0.0.0/8");
}

TEST_F(LocalRulesTest, ARefusalDropsTheHeldRuleKeepsTheJSONAndPostsNothing) {
    storePolicy(kStoredPolicy);
    auto panel = makePanel();
    set(*panel, "a.example", "", "");
    const std::string shown = json->text;
    set(*panel, "", "10.0.0.0/33", "bad");
    EXPECT_EQ(error->text, Controller::kInvalidResolvers) << "the resolvers are looked at first";
    EXPECT_FALSE(held().has_value());
    EXPECT_EQ(json->text, shown);
    set(*panel, "", "10.0.0.0/33", "");
    EXPECT_EQ(error->text, Controller::kInvalidRule);
    drain();
    EXPECT_EQ(posted.size(), 1u);
    // A later success empties the message line.
    set(*panel, "", "10.0.0.1-10.0.0.9", "");
    EXPECT_EQ(error->text, "");
}

TEST_F(LocalRulesTest, TheSwitchEnablesTheInputsAndClearsWithoutPosting) {
    storePolicy(kStoredPolicy);
    auto panel = makePanel();
    useFilter->on = 1;
    panel->useLocalFiltering(*useFilter);
    EXPECT_TRUE(domain->enabled && rule->enabled && resolvers->enabled);
    set(*panel, "a.example", "", "");
    error->text = "left alone";
    drain();
    posted.clear();

    useFilter->on = 0;
    panel->useLocalFiltering(*useFilter);
    EXPECT_FALSE(domain->enabled || rule->enabled || resolvers->enabled);
    EXPECT_EQ(domain->text, "");
    EXPECT_EQ(rule->text, "");
    EXPECT_EQ(resolvers->text, "");
    EXPECT_EQ(json->text, "");
    EXPECT_EQ(error->text, "left alone");
    EXPECT_FALSE(held().has_value());
    drain();
    EXPECT_TRUE(posted.empty());
}

TEST_F(LocalRulesTest, APolicyWithoutFiltersIsAnnouncedUnchanged) {
    storePolicy(R"({"id":3,"jsonrpc":"2.0","result":{}})");
    auto panel = makePanel();
    set(*panel, "example.org", "", "");
    drain();
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(encodeJSON(std::any_cast<DeviceConfiguration>(posted[0])),
              R"({"id":3,"jsonrpc":"2.0","result":{}})");
}

TEST_F(LocalRulesTest, WithoutAReadablePolicyRulesAreHeldButNotAnnounced) {
    for (const char* stored : {"", "{not json", R"({"id":"seven"})"}) {
        if (*stored != '\0') {
            storePolicy(stored);
        }
        auto panel = makePanel();
        EXPECT_FALSE(panel->config.has_value()) << stored;
        set(*panel, "example.org", "10.1.2.3", "1.1.1.1");
        EXPECT_TRUE(held().has_value());
        EXPECT_EQ(json->text,
                  R"({"domain":"example.org","resolvers":["1.1.1.1"],"rule":"10.1.2.3"})");
    }
    drain();
    EXPECT_TRUE(posted.empty());
}

TEST_F(LocalRulesTest, ControlsThatAreGoneAreSkipped) {
    auto panel = makePanel();
    domain->text = "example.org";
    json.reset();
    error.reset();
    panel->setValues();
    EXPECT_TRUE(held().has_value());
}

}  // namespace
}  // namespace morvane
