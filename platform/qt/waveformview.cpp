// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/qt/waveformview.h"

#include "editor/sefilegui.h"
#include "llib/snd/soundtime.h"

#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QVBoxLayout>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace {

const QColor kBackground(24, 28, 34);
const QColor kLaneBackground(30, 35, 43);
const QColor kWave(90, 200, 140);
const QColor kSelection(70, 110, 170);
const QColor kSelectedWave(190, 230, 255);
const QColor kCursor(255, 220, 90);
const QColor kPlayCursor(255, 110, 90);
const QColor kRuler(200, 205, 215);
const QColor kBookmark(230, 150, 255);

// Ruler steps in seconds: the first that leaves enough room between labels is used.
constexpr double kRulerSteps[] = {0.001, 0.002, 0.005, 0.01, 0.02, 0.05,  0.1,   0.2,  0.5,
                                  1,     2,     5,     10,   15,   30,    60,    120,  300,
                                  600,   900,   1800,  3600, 7200, 18000, 36000, 86400};
constexpr int kRulerLabelPixels = 90;
constexpr double kMaxScrollSteps = 1.0e9;

} // namespace

SEWaveformView::SEWaveformView(SEFileGUI& view, QWidget* parent) : QWidget(parent), m_view(view) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMouseTracking(false);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(200, 120);
    m_scroll = new QScrollBar(Qt::Horizontal, this);
    connect(m_scroll, &QScrollBar::valueChanged, this, [this](int value) {
        double const first = value * m_scrollUnitFrames;
        if (std::abs(first - m_firstFrame) >= m_scrollUnitFrames) {
            m_firstFrame = first;
            m_zoomedAll = false;
            update();
        }
    });
}

long long SEWaveformView::GetLength() const {
    return m_view.GetFile() != nullptr ? m_view.GetFile()->GetAudio().GetLengthFrames() : 0;
}

int SEWaveformView::GetChannels() const {
    int const channels =
        m_view.GetFile() != nullptr ? m_view.GetFile()->GetAudio().GetChannels() : 0;
    return std::max(channels, 1);
}

int SEWaveformView::GetLanesWidth() const {
    return std::max(width(), 1);
}

QRect SEWaveformView::LaneRect(int channel) const {
    int const top = kRulerHeight;
    int const bottom = height() - m_scroll->sizeHint().height();
    int const channels = GetChannels();
    int const laneHeight = std::max((bottom - top) / channels, 1);
    return {0, top + channel * laneHeight, GetLanesWidth(), laneHeight};
}

long long SEWaveformView::FrameAt(int x) const {
    double const frame = m_firstFrame + x * m_framesPerPixel;
    return std::clamp(static_cast<long long>(std::llround(frame)), 0LL, GetLength());
}

int SEWaveformView::XOf(double frame) const {
    double const x = (frame - m_firstFrame) / m_framesPerPixel;
    return static_cast<int>(std::clamp(std::floor(x), -1.0e6, 1.0e6));
}

void SEWaveformView::ClampView() {
    double const width = GetLanesWidth();
    double const length = static_cast<double>(GetLength());
    double const most = std::max(length / width, 1.0);
    m_framesPerPixel = std::clamp(m_framesPerPixel, kMinFramesPerPixel, std::max(most, 1.0));
    double const lastFirst = std::max(0.0, length - width * m_framesPerPixel);
    m_firstFrame = std::clamp(m_firstFrame, 0.0, lastFirst);
}

void SEWaveformView::UpdateScrollBar() {
    double const length = static_cast<double>(GetLength());
    double const visible = GetLanesWidth() * m_framesPerPixel;
    // The bar counts in steps of whole pixels, coarser when a long file zoomed far in would
    // overflow its int range.
    m_scrollUnitFrames = std::max(m_framesPerPixel, length / kMaxScrollSteps);
    QSignalBlocker const block(m_scroll);
    m_scroll->setRange(0, static_cast<int>(std::max(0.0, (length - visible) / m_scrollUnitFrames)));
    m_scroll->setPageStep(std::max(1, static_cast<int>(visible / m_scrollUnitFrames)));
    m_scroll->setSingleStep(std::max(1, m_scroll->pageStep() / 10));
    m_scroll->setValue(static_cast<int>(m_firstFrame / m_scrollUnitFrames));
}

void SEWaveformView::SetZoom(double framesPerPixel, double anchorFrame, int anchorX) {
    m_framesPerPixel = framesPerPixel;
    ClampView();
    m_firstFrame = anchorFrame - anchorX * m_framesPerPixel;
    ClampView();
    m_zoomedAll = false;
    UpdateScrollBar();
    update();
    emit zoomChanged();
}

void SEWaveformView::ZoomIn() {
    SEFile const* file = m_view.GetFile();
    long long const cursor = file != nullptr ? file->GetCursor() : 0;
    int x = XOf(static_cast<double>(cursor));
    if (x < 0 || x >= GetLanesWidth()) {
        x = GetLanesWidth() / 2;
    }
    SetZoom(m_framesPerPixel / 2.0, m_firstFrame + x * m_framesPerPixel, x);
}

void SEWaveformView::ZoomOut() {
    int const x = GetLanesWidth() / 2;
    SetZoom(m_framesPerPixel * 2.0, m_firstFrame + x * m_framesPerPixel, x);
}

void SEWaveformView::ZoomToSelection() {
    SEFile const* file = m_view.GetFile();
    if (file == nullptr || file->GetSelection().start == file->GetSelection().end) {
        return;
    }
    auto const& s = file->GetSelection();
    double const frames = static_cast<double>(std::abs(s.end - s.start));
    SetZoom(frames / GetLanesWidth(), static_cast<double>(std::min(s.start, s.end)), 0);
}

void SEWaveformView::ZoomAll() {
    m_framesPerPixel = static_cast<double>(GetLength()) / GetLanesWidth();
    m_firstFrame = 0.0;
    ClampView();
    m_zoomedAll = true;
    UpdateScrollBar();
    update();
    emit zoomChanged();
}

void SEWaveformView::ScrollTo(double firstFrame) {
    m_firstFrame = firstFrame;
    ClampView();
    m_zoomedAll = false;
    UpdateScrollBar();
    update();
}

void SEWaveformView::SetVerticalZoom(double zoom) {
    m_verticalZoom = std::clamp(zoom, 1.0, 1024.0);
    update();
}

void SEWaveformView::SetPlayPosition(long long frame) {
    if (frame == m_playPosition) {
        return;
    }
    m_playPosition = frame;
    if (frame >= 0) {
        // Page along with the sound.
        int const x = XOf(static_cast<double>(frame));
        if (x < 0 || x >= GetLanesWidth()) {
            ScrollTo(static_cast<double>(frame));
        }
    }
    update();
}

void SEWaveformView::DocumentChanged() {
    if (m_zoomedAll) {
        ZoomAll();
        return;
    }
    ClampView();
    UpdateScrollBar();
    update();
}

void SEWaveformView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    int const bar = m_scroll->sizeHint().height();
    m_scroll->setGeometry(0, height() - bar, width(), bar);
    if (m_zoomedAll) {
        ZoomAll();
    } else {
        ClampView();
        UpdateScrollBar();
    }
}

void SEWaveformView::PaintRuler(QPainter& painter, int width) {
    painter.fillRect(0, 0, width, kRulerHeight, kBackground);
    SEFile const* file = m_view.GetFile();
    int const rate = file != nullptr ? file->GetAudio().GetSampleRate() : 0;
    if (rate <= 0) {
        return;
    }
    double const secondsPerPixel = m_framesPerPixel / rate;
    double step = kRulerSteps[std::size(kRulerSteps) - 1];
    for (double s : kRulerSteps) {
        if (s / secondsPerPixel >= kRulerLabelPixels) {
            step = s;
            break;
        }
    }
    painter.setPen(kRuler);
    double const firstSecond = m_firstFrame / rate;
    double t = std::floor(firstSecond / step) * step;
    char text[64];
    for (; (t - firstSecond) / secondsPerPixel < width; t += step) {
        int const x = XOf(t * rate);
        if (x < 0) {
            continue;
        }
        painter.drawLine(x, kRulerHeight - 6, x, kRulerHeight - 1);
        LSoundTime(static_cast<long long>(std::llround(t * 1000.0)))._GetText(text);
        painter.drawText(x + 3, kRulerHeight - 8, QString::fromLatin1(text));
    }
}

void SEWaveformView::PaintLane(QPainter& painter, int channel, int columns, double ratio) {
    QRect const lane = LaneRect(channel);
    int const width = GetLanesWidth();
    painter.fillRect(lane.adjusted(0, 1, 0, -1), kLaneBackground);
    double const mid = lane.top() + lane.height() / 2.0;
    double const scale = (lane.height() / 2.0 - 1.0) * m_verticalZoom;
    painter.setPen(QColor(60, 66, 76));
    painter.drawLine(QPointF(0, mid), QPointF(width, mid));

    SEFile const* file = m_view.GetFile();
    auto const& s = file->GetSelection();
    long long const selStart = std::min(s.start, s.end);
    long long const selEnd = std::max(s.start, s.end);
    // The selected columns, in device pixels.
    double selLeft = 1.0;
    double selRight = 0.0;
    if (selStart != selEnd) {
        selLeft = (static_cast<double>(selStart) - m_firstFrame) / m_framesPerPixel;
        selRight = (static_cast<double>(selEnd) - m_firstFrame) / m_framesPerPixel;
        painter.fillRect(
            QRectF(QPointF(std::max(selLeft, 0.0), lane.top() + 1.0),
                   QPointF(std::min(selRight, static_cast<double>(width)), lane.bottom() - 1.0)),
            kSelection);
        selLeft *= ratio;
        selRight *= ratio;
    }

    // One vertical line per device-pixel column, joined to the previous column so that a
    // zoomed-in wave stays a continuous trace.
    LPeakColumn const* peaks = m_columns.data() + static_cast<std::size_t>(channel) * columns;
    m_normal.clear();
    m_selected.clear();
    float prevMin = peaks[0].min;
    float prevMax = peaks[0].max;
    double const top = lane.top() + 1.0;
    double const bottom = lane.bottom() - 1.0;
    for (int c = 0; c < columns; ++c) {
        float const lo = std::min(peaks[c].min, prevMax);
        float const hi = std::max(peaks[c].max, prevMin);
        prevMin = peaks[c].min;
        prevMax = peaks[c].max;
        double const x = (c + 0.5) / ratio;
        double const y1 = std::clamp(mid - hi * scale, top, bottom);
        double const y2 = std::clamp(mid - lo * scale, top, bottom) + 1.0 / ratio;
        (c >= selLeft && c < selRight ? m_selected : m_normal).append(QLineF(x, y1, x, y2));
    }
    painter.setPen(QPen(kWave, 0));
    painter.drawLines(m_normal);
    painter.setPen(QPen(kSelectedWave, 0));
    painter.drawLines(m_selected);
}

void SEWaveformView::Render(QPainter& painter) {
    double const ratio = devicePixelRatioF();
    int const width = GetLanesWidth();
    int const columns = std::max(1, static_cast<int>(std::lround(width * ratio)));
    painter.fillRect(rect(), kBackground);
    PaintRuler(painter, width);

    SEFile const* file = m_view.GetFile();
    if (file == nullptr || GetLength() == 0) {
        painter.setPen(kRuler);
        painter.drawText(rect(), Qt::AlignCenter, tr("No audio"));
        return;
    }
    int const channels = GetChannels();
    std::size_t const needed = static_cast<std::size_t>(channels) * columns;
    if (!m_peaks.GetColumns(file->GetAudio(), m_firstFrame, m_framesPerPixel / ratio, columns,
                            m_columns) ||
        m_columns.size() < needed) {
        m_columns.resize(needed);
    }
    for (int ch = 0; ch < channels; ++ch) {
        PaintLane(painter, ch, columns, ratio);
    }

    int const lanesBottom = LaneRect(channels - 1).bottom();
    for (LSEBookmark const* b = file->GetBookmarks().GetHead(); b != nullptr; b = b->GetNext()) {
        int const x = XOf(static_cast<double>(b->position));
        if (x >= 0 && x < width) {
            painter.setPen(QPen(kBookmark, 1, Qt::DashLine));
            painter.drawLine(x, kRulerHeight, x, lanesBottom);
            painter.drawText(x + 3, kRulerHeight + 12, QString::fromUtf8(b->name));
        }
    }
    int const cursor = XOf(static_cast<double>(file->GetCursor()));
    if (cursor >= 0 && cursor < width) {
        painter.setPen(kCursor);
        painter.drawLine(cursor, kRulerHeight, cursor, lanesBottom);
    }
    if (m_playPosition >= 0) {
        int const x = XOf(static_cast<double>(m_playPosition));
        painter.setPen(QPen(kPlayCursor, 2));
        painter.drawLine(x, 0, x, lanesBottom);
    }
}

void SEWaveformView::paintEvent(QPaintEvent* /*event*/) {
    // Drawn into a picture first: while work changes the document the last picture is shown.
    if (!(m_isBusy && m_isBusy())) {
        double const ratio = devicePixelRatioF();
        QSize const pixels = (QSizeF(size()) * ratio).toSize();
        if (m_last.size() != pixels) {
            m_last = QPixmap(pixels);
        }
        m_last.setDevicePixelRatio(ratio);
        QPainter painter(&m_last);
        Render(painter);
    }
    QPainter out(this);
    if (!m_last.isNull()) {
        out.drawPixmap(0, 0, m_last);
    }
}

void SEWaveformView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || (m_isBusy && m_isBusy())) {
        return;
    }
    SEFile const* file = m_view.GetFile();
    if (file == nullptr) {
        return;
    }
    long long const frame = FrameAt(static_cast<int>(event->position().x()));
    if ((event->modifiers() & Qt::ShiftModifier) != 0) {
        // Extend from the end of the selection (or the cursor) that stays put.
        auto const& s = file->GetSelection();
        long long const a = std::min(s.start, s.end);
        long long const b = std::max(s.start, s.end);
        if (a == b) {
            m_anchor = file->GetCursor();
        } else {
            m_anchor = std::abs(frame - a) < std::abs(frame - b) ? b : a;
        }
        emit selectionRequested(std::min(m_anchor, frame), std::max(m_anchor, frame), frame);
    } else {
        m_anchor = frame;
        emit selectionRequested(frame, frame, frame);
    }
    m_dragging = true;
}

void SEWaveformView::mouseMoveEvent(QMouseEvent* event) {
    if (!m_dragging) {
        return;
    }
    long long const frame = FrameAt(static_cast<int>(event->position().x()));
    emit selectionRequested(std::min(m_anchor, frame), std::max(m_anchor, frame), frame);
}

void SEWaveformView::mouseReleaseEvent(QMouseEvent* event) {
    if (m_dragging && event->button() == Qt::LeftButton) {
        mouseMoveEvent(event);
        m_dragging = false;
    }
}

void SEWaveformView::wheelEvent(QWheelEvent* event) {
    int const steps = event->angleDelta().y() / 120;
    if (steps == 0) {
        return;
    }
    if ((event->modifiers() & Qt::ControlModifier) != 0) {
        int const x = static_cast<int>(event->position().x());
        double const anchor = m_firstFrame + x * m_framesPerPixel;
        SetZoom(m_framesPerPixel * std::pow(2.0, -steps), anchor, x);
    } else {
        ScrollTo(m_firstFrame - steps * GetLanesWidth() * m_framesPerPixel / 8.0);
    }
    event->accept();
}
