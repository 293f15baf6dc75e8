#include "ui/SettingsView.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSpinBox>
#include <QVBoxLayout>

#include "core/session/Studio.h"
#include "ui/SettingsGroup.h"
#include "ui/SettingsRow.h"
#include "ui/StudioBridge.h"
#include "ui/Theme.h"

namespace pavix {
namespace {

bool askBeforeForgetting(QWidget* parent) {
    QMessageBox box(parent);
    box.setIcon(QMessageBox::Warning);
    box.setWindowTitle("Pavix");
    box.setText("Forget this computer?");
    box.setInformativeText(
        "The pairing is removed here and at the service. Local videos remain on this computer.");
    auto* forget = box.addButton("Forget", QMessageBox::DestructiveRole);
    box.addButton("Cancel", QMessageBox::RejectRole);
    box.exec();
    return box.clickedButton() == forget;
}

}  // namespace

SettingsView::SettingsView(StudioBridge& bridge, AutostartEntry autostart, QWidget* parent)
    : QWidget(parent),
      confirmForget(askBeforeForgetting),
      bridge_(bridge),
      autostart_(std::move(autostart)) {
    setWindowTitle("Pavix Settings");
    setObjectName("settings");

    showBar_ = new QCheckBox;
    connect(showBar_, &QCheckBox::clicked, this,
            [this](bool on) { bridge_.call([on](Studio& studio) { studio.setShowHUD(on); }); });
    atLogin_ = new QCheckBox;
    connect(atLogin_, &QCheckBox::clicked, this, [this](bool on) {
        try {
            autostart_.setEnabled(on, QCoreApplication::applicationFilePath().toStdString());
        } catch (const std::exception& e) {
            QMessageBox::warning(this, "Pavix", e.what());
        }
        atLogin_->setChecked(autostart_.enabled());
    });
    auto* general = new SettingsGroup("General");
    general->add(new SettingsRow("Show the floating bar",
                                 "A small bar above your windows to record and share.", showBar_));
    general->add(new SettingsRow("Start Pavix when you log in", {}, atLogin_));

    allowControl_ = new QCheckBox;
    connect(allowControl_, &QCheckBox::clicked, this, [this](bool on) {
        bridge_.call([on](Studio& studio) { studio.setAllowControl(on); });
    });
    diagnostics_ = new QCheckBox;
    connect(diagnostics_, &QCheckBox::clicked, this, [this](bool on) {
        bridge_.call([on](Studio& studio) { studio.setDiagnosticsOptIn(on); });
    });
    console_ = new QLineEdit;
    console_->setMinimumWidth(220);
    connect(console_, &QLineEdit::editingFinished, this, [this] {
        auto text = console_->text().trimmed().toStdString();
        changePreferences([text](Preferences& p) { p.consoleURL = text; });
    });
    auto* openConsole = new QPushButton("Open the console");
    connect(openConsole, &QPushButton::clicked, this, [this] {
        Q_EMIT openConsoleRequested(QString::fromStdString(bridge_.snapshot().console));
    });
    auto* agent = new SettingsGroup("Agent");
    agent->add(new SettingsRow("Let the agent operate the shared window",
                               "Only the window you shared, never terminals, password managers, "
                               "system tools or password fields.",
                               allowControl_));
    agent->add(new SettingsRow("Send failure reports",
                               "Only what failed, an error code and the version: no text, paths "
                               "or data of yours.",
                               diagnostics_));
    agent->add(new SettingsRow("Console address", "Empty: the service's own console.", console_));
    agent->add(new SettingsRow("Web console", {}, openConsole));

    autoTrash_ = new QCheckBox;
    connect(autoTrash_, &QCheckBox::clicked, this, [this](bool on) {
        bridge_.call([on](Studio& studio) { studio.setAutoTrashUploaded(on); });
    });
    maxWidth_ = new QSpinBox;
    maxWidth_->setRange(0, 7680);
    maxWidth_->setSingleStep(160);
    maxWidth_->setSpecialValueText("Automatic");
    maxWidth_->setSuffix(" px");
    connect(maxWidth_, &QSpinBox::editingFinished, this, [this] {
        const long long width = maxWidth_->value();
        changePreferences([width](Preferences& p) {
            p.captureMaxWidth = width > 0 ? std::optional<long long>(width) : std::nullopt;
        });
    });
    auto* library = new SettingsGroup(
        "Library",
        "Local copies. Your library in Pavix is separate and follows your plan's retention.");
    library->add(new SettingsRow(
        "Trash uploaded copies after 30 days",
        "Only copies already in your library. Saved or interrupted recordings stay.", autoTrash_));
    library->add(
        new SettingsRow("Widest video", "Recordings are made no wider than this.", maxWidth_));

    beta_ = new QCheckBox;
    connect(beta_, &QCheckBox::clicked, this,
            [this](bool on) { changePreferences([on](Preferences& p) { p.betaUpdates = on; }); });
    canvasApps_ = new QLineEdit;
    canvasApps_->setPlaceholderText("org.gimp.GIMP, org.inkscape.Inkscape");
    canvasApps_->setMinimumWidth(220);
    connect(canvasApps_, &QLineEdit::editingFinished, this, [this] {
        auto text = canvasApps_->text().trimmed().toStdString();
        changePreferences([text](Preferences& p) { p.visualOnlyApps = text; });
    });
    auto* more = new SettingsGroup("Updates and applications");
    more->add(new SettingsRow("Include beta versions",
                              "Checks once a day and after each recording.", beta_));
    more->add(new SettingsRow("Canvas applications",
                              "Applications read from their picture as well, by desktop id, "
                              "separated by commas.",
                              canvasApps_));

    auto* copy = new QPushButton("Copy support summary");
    connect(copy, &QPushButton::clicked, this,
            [this] { bridge_.spawn([](Studio& studio) { return studio.copySupportBundle(); }); });
    forget_ = new QPushButton("Forget this computer");
    Theme::setRole(forget_, "danger");
    connect(forget_, &QPushButton::clicked, this, [this] {
        if (confirmForget(this)) {
            bridge_.spawn([](Studio& studio) { return studio.forgetDevice(); });
        }
    });
    auto* device = new SettingsGroup("This computer");
    device->add(new SettingsRow("Support summary",
                                "Versions, ids, stages and timings, for a support request.", copy));
    device->add(
        new SettingsRow("Pairing", "Removes the pairing here and at the service.", forget_));

    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(16, 14, 16, 16);
    for (auto* group : {general, agent, library, more, device}) {
        column->addWidget(group);
    }
    column->addStretch(1);
    auto* scroll = new QScrollArea;
    scroll->setWidget(content);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
    resize(560, 720);

    connect(&bridge_, &StudioBridge::changed, this, &SettingsView::render);
    render();
}

void SettingsView::render() {
    const auto& s = bridge_.snapshot().state;
    showBar_->setChecked(s.showHUD);
    atLogin_->setChecked(autostart_.enabled());
    allowControl_->setChecked(s.allowControl);
    diagnostics_->setChecked(s.diagnosticsOptIn);
    autoTrash_->setChecked(s.autoTrashUploaded);
    beta_->setChecked(s.preferences.betaUpdates);
    if (!console_->hasFocus()) {
        console_->setText(QString::fromStdString(s.preferences.consoleURL));
        auto console = QString::fromStdString(bridge_.snapshot().console);
        if (console.endsWith('#')) {
            console.chop(1);  // the console's own page, without a view
        }
        console_->setPlaceholderText(console);
    }
    if (!maxWidth_->hasFocus()) {
        maxWidth_->setValue(static_cast<int>(s.preferences.captureMaxWidth.value_or(0)));
    }
    if (!canvasApps_->hasFocus()) {
        canvasApps_->setText(QString::fromStdString(s.preferences.visualOnlyApps));
    }
    forget_->setEnabled(s.paired && !s.recording && !s.busy);
}

void SettingsView::changePreferences(const std::function<void(Preferences&)>& edit) {
    // The edit applies to the model's own preferences, not to this view's copy: two edits in
    // a row must not undo each other.
    bridge_.call([edit](Studio& studio) {
        auto next = studio.state().preferences;
        edit(next);
        if (next != studio.state().preferences) {
            studio.setPreferences(next);
        }
    });
}

}  // namespace pavix
