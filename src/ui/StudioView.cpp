#include "ui/StudioView.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>

#include "core/session/Studio.h"
#include "ui/FileManager.h"
#include "ui/PreviewStage.h"
#include "ui/RecordingRow.h"
#include "ui/SourceRow.h"
#include "ui/StudioBridge.h"
#include "ui/Theme.h"
#include "ui/UpdateBanner.h"

namespace pavix {
namespace {

QLabel* section(const QString& text) {
    auto* label = new QLabel(text);
    Theme::setRole(label, "section");
    return label;
}

}  // namespace

StudioView::StudioView(StudioBridge& bridge, std::filesystem::path library, QWidget* parent)
    : QWidget(parent), bridge_(bridge), library_(std::move(library)) {
    setWindowTitle("Pavix");
    setObjectName("main");
    build();
    connect(&bridge_, &StudioBridge::changed, this, &StudioView::render);
    render();
}

std::unique_ptr<QMessageBox> StudioView::removalQuestion(QWidget* parent) {
    auto box = std::make_unique<QMessageBox>(parent);
    box->setIcon(QMessageBox::Question);
    box->setWindowTitle("Pavix");
    box->setText("Move this recording to the Trash?");
    box->addButton("Move to Trash", QMessageBox::DestructiveRole);
    box->setDefaultButton(box->addButton("Keep", QMessageBox::RejectRole));
    return box;
}

void StudioView::build() {
    auto* title = new QLabel("Pavix");
    auto font = title->font();
    font.setPointSizeF(font.pointSizeF() * 1.4);
    font.setBold(true);
    title->setFont(font);
    auto* mark = new QLabel;
    mark->setPixmap(Theme::icon("pavix").pixmap(28, 28));
    badge_ = new QLabel;
    Theme::setRole(badge_, "badge");
    auto* header = new QHBoxLayout;
    header->addWidget(mark);
    header->addWidget(title);
    header->addStretch(1);
    header->addWidget(badge_);
    auto* settings = new QPushButton("Settings…");
    connect(settings, &QPushButton::clicked, this, &StudioView::settingsRequested);
    header->addWidget(settings);

    banner_ = new UpdateBanner;
    connect(banner_, &UpdateBanner::downloadRequested, this, &StudioView::downloadRequested);

    sources_ = new QListWidget;
    sources_->setAccessibleName("Sources");
    sources_->setMinimumHeight(150);
    sources_->setUniformItemSizes(true);
    sources_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    connect(sources_, &QListWidget::currentRowChanged, this, [this](int row) {
        auto* item = sources_->item(row);
        if (!item) {
            return;
        }
        auto id = item->data(Qt::UserRole).toString().toStdString();
        if (id == bridge_.snapshot().state.selection) {
            return;
        }
        bridge_.call([id](Studio& studio) { studio.selectSource(id); });
    });
    refresh_ = new QPushButton("Refresh");
    connect(refresh_, &QPushButton::clicked, this,
            [this] { bridge_.spawn([](Studio& studio) { return studio.refreshSources(); }); });
    pick_ = new QPushButton("Pick a window…");
    connect(pick_, &QPushButton::clicked, this, &StudioView::pickRequested);
    preview_ = new PreviewStage(bridge_);
    auto* sourceButtons = new QHBoxLayout;
    sourceButtons->addWidget(refresh_);
    sourceButtons->addStretch(1);
    sourceButtons->addWidget(pick_);

    server_ = new QLineEdit;
    server_->setPlaceholderText("https://…");
    server_->setAccessibleName("Server");
    connect(server_, &QLineEdit::editingFinished, this, [this] {
        auto server = server_->text().trimmed().toStdString();
        bridge_.call([server](Studio& studio) { studio.setServer(server); });
    });
    code_ = new QLineEdit;
    code_->setPlaceholderText("From your agent or the console");
    code_->setAccessibleName("One-time code");
    connect(code_, &QLineEdit::textEdited, this, [this](const QString& text) {
        auto code = text.toStdString();
        bridge_.call([code](Studio& studio) { studio.setCode(code); });
    });
    auto* form = new QFormLayout;
    form->setLabelAlignment(Qt::AlignRight);
    form->addRow("Server", server_);
    form->addRow("One-time code", code_);

    consent_ = new QCheckBox("Approve recording and upload of the selected source");
    connect(consent_, &QCheckBox::clicked, this,
            [this](bool on) { bridge_.call([on](Studio& studio) { studio.setConsent(on); }); });
    share_ = new QPushButton;
    Theme::setRole(share_, "primary");
    connect(share_, &QPushButton::clicked, this, [this] {
        if (bridge_.snapshot().state.connected) {
            bridge_.spawn([](Studio& studio) { return studio.stopSharing(); });
        } else {
            bridge_.spawn([](Studio& studio) { return studio.pair(); });
        }
    });
    blocker_ = new QLabel;
    Theme::setRole(blocker_, "secondary");
    blocker_->setWordWrap(true);
    record_ = new QPushButton;
    connect(record_, &QPushButton::clicked, this, [this] {
        if (bridge_.snapshot().state.recording) {
            bridge_.spawn([](Studio& studio) { return studio.stopAnyRecording(); });
        } else {
            bridge_.spawn([](Studio& studio) { return studio.recordNow(); });
        }
    });
    auto* actions = new QHBoxLayout;
    actions->addWidget(share_);
    actions->addWidget(record_);
    actions->addStretch(1);

    status_ = new QLabel;
    Theme::setRole(status_, "status");
    status_->setWordWrap(true);
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    status_->setAccessibleName("Status");

    recordings_ = new QListWidget;
    recordings_->setAccessibleName("On this computer");
    recordings_->setMinimumHeight(160);
    recordings_->setSelectionMode(QAbstractItemView::NoSelection);
    empty_ = new QLabel("Recordings you make appear here.");
    Theme::setRole(empty_, "secondary");

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 14, 16, 16);
    layout->setSpacing(8);
    layout->addLayout(header);
    layout->addWidget(banner_);
    layout->addWidget(section("Source"));
    auto* sourceRow = new QHBoxLayout;
    sourceRow->setSpacing(10);
    sourceRow->addWidget(sources_, 1);
    sourceRow->addWidget(preview_, 1);
    layout->addLayout(sourceRow, 2);
    layout->addLayout(sourceButtons);
    layout->addWidget(section("Agent"));
    layout->addLayout(form);
    layout->addWidget(consent_);
    layout->addLayout(actions);
    layout->addWidget(blocker_);
    layout->addWidget(status_);
    layout->addWidget(section("On this computer"));
    layout->addWidget(recordings_, 3);
    layout->addWidget(empty_, 3, Qt::AlignTop);
    setMinimumSize(560, 640);
    resize(660, 780);
}

void StudioView::render() {
    const auto& snapshot = bridge_.snapshot();
    const auto& s = snapshot.state;

    if (s.recording) {
        badge_->setText(s.manual ? "Recording" : "Recording for your agent");
        Theme::setTone(badge_, "live");
    } else if (s.connected) {
        badge_->setText("Shared with your agent");
        Theme::setTone(badge_, "on");
    } else {
        badge_->setText(s.paired ? "Paired" : "Not paired");
        Theme::setTone(badge_, "");
    }
    banner_->setDecision(s.update);

    renderSources(snapshot);
    if (!server_->hasFocus()) {
        server_->setText(QString::fromStdString(s.server));
    }
    if (!code_->hasFocus()) {
        code_->setText(QString::fromStdString(s.code));
    }
    const bool idle = !s.recording && !s.busy;
    server_->setEnabled(!s.connected && idle);
    code_->setEnabled(!s.connected && idle);

    consent_->setChecked(s.consent);
    consent_->setEnabled(!s.recording && !s.busy);
    share_->setText(s.connected ? "Stop sharing" : "Share with agent");
    share_->setEnabled(s.connected || !snapshot.shareBlocker);
    blocker_->setText(
        QString::fromStdString(s.connected ? std::string() : snapshot.shareBlocker.value_or("")));
    blocker_->setVisible(!blocker_->text().isEmpty());

    record_->setText(s.recording ? "Stop" : "Record it yourself");
    record_->setIcon(Theme::icon(s.recording ? "stop" : "record"));
    record_->setEnabled(s.recording ? snapshot.phase == RecordingLifecycle::Phase::recording
                                    : !snapshot.recordBlocker);
    record_->setToolTip(
        QString::fromStdString(s.recording ? std::string() : snapshot.recordBlocker.value_or("")));

    status_->setText(QString::fromStdString(s.status));
    renderLibrary(snapshot);
}

void StudioView::renderSources(const StudioSnapshot& snapshot) {
    const auto& s = snapshot.state;
    bool same = sources_->count() == static_cast<int>(s.sources.size());
    for (int i = 0; same && i < sources_->count(); ++i) {
        same = sources_->item(i)->data(Qt::UserRole).toString().toStdString() == s.sources[i].id &&
               sources_->item(i)->data(Qt::UserRole + 1).toString().toStdString() ==
                   s.sources[i].title;
    }
    const QSignalBlocker quiet(sources_);
    if (!same) {
        sources_->clear();
        for (const auto& source : s.sources) {
            auto* item = new QListWidgetItem;
            item->setData(Qt::UserRole, QString::fromStdString(source.id));
            item->setData(Qt::UserRole + 1, QString::fromStdString(source.title));
            // The item's own text is what keyboard search and screen readers use.
            item->setData(Qt::AccessibleTextRole, QString::fromStdString(source.title));
            item->setToolTip(QString::fromStdString(source.title));
            auto* row = new SourceRow(source);
            item->setSizeHint(row->sizeHint());
            sources_->addItem(item);
            sources_->setItemWidget(item, row);
        }
    }
    for (int i = 0; i < sources_->count(); ++i) {
        if (sources_->item(i)->data(Qt::UserRole).toString().toStdString() == s.selection) {
            sources_->setCurrentRow(i);
        }
    }
    const bool idle = !s.recording && !s.busy;
    sources_->setEnabled(idle);
    pick_->setEnabled(idle);
    refresh_->setEnabled(idle);
}

void StudioView::renderLibrary(const StudioSnapshot& snapshot) {
    const auto& recent = snapshot.state.recent;
    bool same = recordings_->count() == static_cast<int>(recent.size());
    for (int i = 0; same && i < recordings_->count(); ++i) {
        auto* row = static_cast<RecordingRow*>(recordings_->itemWidget(recordings_->item(i)));
        same = row->recordId() == recent[i].id;
    }
    if (!same) {
        recordings_->clear();
        for (const auto& record : recent) {
            auto* item = new QListWidgetItem;
            auto* row = new RecordingRow;
            const auto id = record.id;
            connect(row, &RecordingRow::playRequested, this, [this, id] { openRecord(id, false); });
            connect(row, &RecordingRow::showInFolderRequested, this,
                    [this, id] { openRecord(id, true); });
            connect(row, &RecordingRow::retryRequested, this, [this, id] {
                bridge_.call([id](Studio& studio) {
                    for (const auto& r : studio.state().recent) {
                        if (r.id == id) {
                            studio.retryUpload(r);
                            return;
                        }
                    }
                });
            });
            connect(row, &RecordingRow::removeRequested, this, [this, id] {
                auto question = removalQuestion(this);
                question->exec();
                if (question->buttonRole(question->clickedButton()) !=
                    QMessageBox::DestructiveRole) {
                    return;  // "Keep", or the question closed
                }
                bridge_.spawn([id](Studio& studio) -> asio::awaitable<void> {
                    for (const auto& r : studio.state().recent) {
                        if (r.id == id) {
                            co_await studio.deleteLocal(r);
                            co_return;
                        }
                    }
                });
            });
            recordings_->addItem(item);
            recordings_->setItemWidget(item, row);
        }
    }
    for (int i = 0; i < recordings_->count(); ++i) {
        auto* item = recordings_->item(i);
        auto* row = static_cast<RecordingRow*>(recordings_->itemWidget(item));
        const auto& record = recent[i];
        std::optional<double> progress;
        if (snapshot.state.uploadRecord == record.id) {
            progress = snapshot.state.uploadProgress;
        }
        row->setRecord(record, snapshot.actionsFor(record.id), progress);
        item->setSizeHint(row->sizeHint());
    }
    recordings_->setVisible(!recent.empty());
    empty_->setVisible(recent.empty());
}

void StudioView::openRecord(const std::string& id, bool folder) {
    const auto file = QString::fromStdString((library_ / ("Pavix-" + id + ".mp4")).string());
    if (folder) {
        FileManager::showItem(file);
    } else {
        QDesktopServices::openUrl(QUrl::fromLocalFile(file));
    }
}

void StudioView::closeEvent(QCloseEvent* event) {
    Q_EMIT closeRequested();
    event->accept();
}

}  // namespace pavix
