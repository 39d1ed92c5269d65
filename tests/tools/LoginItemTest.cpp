#include "tools/LoginItem.hpp"

#include <fstream>

#include <gtest/gtest.h>

#include "tests/testsupport/FakeFileSystem.hpp"
#include "tests/testsupport/TemporaryDirectory.hpp"

namespace quillfort {
namespace {

// A user manager that remembers what it was told instead of asking systemd.
class FakeUserServices final : public LoginItem::UserServiceManager {
public:
    FakeUserServices(std::optional<std::string> state, bool graphicalSession)
        : state_(std::move(state)), graphicalSession_(graphicalSession) {}
    std::optional<std::string> unitFileState(std::string_view) override { return state_; }
    bool graphicalSessionReached() override { return graphicalSession_; }
    std::expected<void, std::string> setUnitEnabled(std::string_view, bool enabled) override {
        ++changes;
        state_ = enabled ? "enabled" : "disabled";
        return {};
    }
    int changes = 0;

private:
    std::optional<std::string> state_;
    bool graphicalSession_;
};

enum class UserFile { absent, hidden, starts };

TEST(LoginItem, EntryTextThatStopsTheProgram) {
    const std::pair<std::string_view, bool> cases[] = {
        {"[Desktop Entry]\nExec=quillfort-agent\n", true},
        {"[Desktop Entry]\nHidden=true\n", false},
        {"[Desktop Entry]\n  Hidden = true  \n", false},
        {"[Desktop Entry]\nHidden=false\n", true},
        {"[Desktop Entry]\nX-GNOME-Autostart-enabled=false\n", false},
        {"# Hidden=true\n[Desktop Entry]\nExec=x\n", true},
        {"Hidden=true\n[Desktop Entry]\nExec=x\n", true},  // outside any group
        {"[Desktop Entry]\nExec=x\n[Desktop Action Quit]\nHidden=true\n", true},
    };
    for (const auto& [text, starts] : cases)
        EXPECT_EQ(LoginItem::autostartEntryStartsProgram(text), starts) << text;
}

TEST(LoginItem, LocationsFollowXdgVariablesAndIgnoreRelativeOnes) {
    using Locations = LoginItem::AutostartLocations;
    const std::tuple<std::map<std::string, std::string>, std::optional<std::filesystem::path>,
                     std::optional<Locations>>
        cases[] = {
            {{{"XDG_CONFIG_HOME", "relative"}}, "/home/ada",
             Locations{"/home/ada/.config/autostart", {"/etc/xdg/autostart"}}},
            {{{"XDG_CONFIG_HOME", "/cfg"}, {"XDG_CONFIG_DIRS", "/opt/xdg:rel::/etc/xdg"}}, std::nullopt,
             Locations{"/cfg/autostart", {"/opt/xdg/autostart", "/etc/xdg/autostart"}}},
            {{}, std::nullopt, std::nullopt},
        };
    for (const auto& [variables, home, expected] : cases)
        EXPECT_EQ(LoginItem::autostartLocations(variables, home), expected) << ::testing::PrintToString(variables);
}

TEST(LoginItem, SwitchesTheMechanismInForceAndOnlyTheUsersAutostartCopy) {
    struct Case {
        std::string name;
        std::optional<std::string> unitState;  // nothing: no user manager knows the unit
        bool systemEntry;
        UserFile userFileBefore;
        bool enable;
        UserFile userFileAfter;
        int unitChanges;
        bool graphicalSession = true;
    };
    using enum UserFile;
    const Case cases[] = {
        {"off hides the system entry", std::nullopt, true, absent, false, hidden, 0},
        {"on removes the user's hiding copy", std::nullopt, true, hidden, true, absent, 0},
        {"on without a system entry writes the user's own", std::nullopt, false, absent, true, starts, 0},
        {"already on changes nothing", std::nullopt, true, absent, true, absent, 0},
        {"on through the unit hides the autostart entry", "disabled", true, absent, true, hidden, 1},
        {"a masked unit is left as it is", "masked", false, absent, false, absent, 0},
        {"on without a graphical session target keeps the autostart entry", "disabled", true, hidden, true, absent, 0,
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        testing::TemporaryDirectory root;
        testing::FakeFileSystem fileSystem(root.path() / "home");
        const LoginItem::AutostartLocations locations{root.path() / "home/autostart", {root.path() / "etc/autostart"}};
        const auto userPath = locations.userDirectory / LoginItem::autostartEntryName;
        if (c.systemEntry)
            testing::writeText(locations.systemDirectories.front() / LoginItem::autostartEntryName,
                  "[Desktop Entry]\nExec=quillfort-agent\n");
        if (c.userFileBefore == hidden) testing::writeText(userPath, "[Desktop Entry]\nHidden=true\n");

        FakeUserServices services(c.unitState, c.graphicalSession);
        const LoginItem::Context context{fileSystem, c.unitState ? &services : nullptr, locations};
        auto state = LoginItem::setEnabled(context, c.enable);
        ASSERT_TRUE(state) << state.error();
        EXPECT_EQ(state->enabled(), c.enable);
        EXPECT_EQ(services.changes, c.unitChanges);

        auto userText = fileSystem.readFile(userPath);
        const auto after = !userText ? absent : LoginItem::autostartEntryStartsProgram(*userText) ? starts : hidden;
        EXPECT_EQ(after, c.userFileAfter);
    }
}

TEST(LoginItem, DescriptionNamesTheMechanismInForce) {
    LoginItem::State state{"enabled", "/etc/xdg/autostart/quillfort-agent.desktop", false};
    EXPECT_EQ(LoginItem::describe(state),
              "The Quillfort agent starts at login through the systemd user unit quillfort-agent.service.\n");
    state = {std::nullopt, "/etc/xdg/autostart/quillfort-agent.desktop", true};
    EXPECT_EQ(LoginItem::describe(state), "The Quillfort agent starts at login through the autostart entry "
                                          "/etc/xdg/autostart/quillfort-agent.desktop.\n");
    state = {"disabled", "/h/.config/autostart/quillfort-agent.desktop", false};
    EXPECT_EQ(LoginItem::describe(state),
              "The Quillfort agent does not start at login: the systemd user unit quillfort-agent.service is "
              "disabled; the autostart entry /h/.config/autostart/quillfort-agent.desktop is switched off.\n");
}

}  // namespace
}  // namespace quillfort
