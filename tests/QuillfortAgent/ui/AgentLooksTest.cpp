// How the windows look, pixel for pixel, against reference images rendered
// offscreen with the fonts scripts/setup.sh installs. Widget tests see what a
// window holds; only a picture sees a lost font, margin, colour or symbol.
// QUILLFORT_UPDATE_LOOKS=1 writes the references instead of comparing them;
// look at every one before committing it.
#include <filesystem>

#include <QFontInfo>
#include <QImage>

#include "QuillfortAgent/ui/AgentStatusView.hpp"
#include "QuillfortAgent/ui/QFPalette.hpp"
#include "tests/QuillfortAgent/ui/UiHarness.hpp"

namespace quillfort::ui {
namespace {

using testing::UiHarness;

// Pixels told apart only by rounding in antialiased edges are not a difference.
int differingPixels(const QImage& a, const QImage& b) {
    int count = 0;
    for (int y = 0; y < a.height(); ++y) {
        const auto* left = reinterpret_cast<const QRgb*>(a.constScanLine(y));
        const auto* right = reinterpret_cast<const QRgb*>(b.constScanLine(y));
        for (int x = 0; x < a.width(); ++x) {
            const int delta = std::max({std::abs(qRed(left[x]) - qRed(right[x])),
                                        std::abs(qGreen(left[x]) - qGreen(right[x])),
                                        std::abs(qBlue(left[x]) - qBlue(right[x]))});
            if (delta > 24) ++count;
        }
    }
    return count;
}

void expectLooksLike(QWidget& widget, const QSize& size, const std::string& name) {
    SCOPED_TRACE(name);
    widget.resize(size);
    UiHarness::settle();
    const QImage actual = widget.grab().toImage().convertToFormat(QImage::Format_RGB32);
    const auto reference = std::filesystem::path(QUILLFORT_LOOKS_DIR) / (name + ".png");
    if (qEnvironmentVariableIsSet("QUILLFORT_UPDATE_LOOKS")) {
        ASSERT_TRUE(actual.save(QString::fromStdString(reference.string())));
        return;
    }
    const QImage expected = QImage(QString::fromStdString(reference.string())).convertToFormat(QImage::Format_RGB32);
    ASSERT_FALSE(expected.isNull()) << "no reference image " << reference;
    ASSERT_EQ(actual.size(), expected.size());
    if (const int differing = differingPixels(actual, expected); differing > 8) {
        const auto seen = std::filesystem::temp_directory_path() / (name + ".actual.png");
        actual.save(QString::fromStdString(seen.string()));
        ADD_FAILURE() << differing << " pixels differ from " << reference << "; this run's picture is " << seen;
    }
}

TEST(AgentLooks, WindowsMatchTheirReferenceImages) {
    QFPalette::forceAppearance(false);
    UiHarness ui;
    if (QFontInfo(QApplication::font()).family() != "DejaVu Sans")
        GTEST_SKIP() << "the references are drawn in DejaVu Sans (fonts-dejavu-core)";
    QWidget& window = *ui.presenter->window();
    expectLooksLike(window, {700, 780}, "idle");

    ui.receive("api.example.com", 1);
    ui.receive("second.example.com", 2);
    expectLooksLike(window, {700, 780}, "prompt");
    // Dark and back again: the colours return, and every font stays as set.
    for (const bool dark : {true, false}) {
        QFPalette::forceAppearance(dark);
        QFPalette::refreshAll();
    }
    expectLooksLike(window, {700, 780}, "prompt");
    for (const char* name : {"DurationChipAlways", "ProcessDetailsSectionHeader", "ScopeOptionsSectionHeader"}) {
        auto* target = window.findChild<QWidget*>(name);
        ASSERT_NE(target, nullptr) << name;
        QTest::mouseClick(target, Qt::LeftButton);
    }
    expectLooksLike(window, {700, 780}, "prompt-expanded");

    AgentStatusView status({}, ui.coordinator);
    expectLooksLike(status, {520, 580}, "status");
    // Both answered: the idle window lists them under RECENT.
    ui.click(ui.find<QAbstractButton>("AllowButton"));
    ui.click(ui.find<QAbstractButton>("BlockButton"));
    expectLooksLike(window, {700, 780}, "idle-recent");

    // The flow's executable has a rule under another signer.
    UiHarness signer;
    Rule existing = quillfort::testing::sampleRule();
    existing.subject = {RuleSubject::exactExecutable("/usr/bin/curl"), RuleSubject::signingID("old.curl")};
    signer.rules->rules = {existing};
    signer.receive("api.example.com", 3);
    expectLooksLike(*signer.presenter->window(), {700, 780}, "signer-changed");
    QFPalette::forceAppearance(std::nullopt);
}

}  // namespace
}  // namespace quillfort::ui
