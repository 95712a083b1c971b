// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEWaveformView: the picture of one document: a time ruler, one lane per channel with a min/max
// column per pixel, the selection, the cursor, the play cursor and the bookmarks, and a scroll
// bar. Columns come from LPeakView, which draws zoomed-out columns from the cache's peak data and
// reads samples only when a column is narrower than a peak group, so repainting costs the same
// for a minute or for hours of audio.
//
// The view owns nothing of the document: it holds the core's SEFileGUI, reads the document only
// on the main thread and never while `IsBusy` says work is changing it (it shows the last
// picture then). Mouse gestures change the selection and cursor through `selectionChanged`'s
// owner, which applies them with the core's ModifySelection, so the status bar and the undo
// snapshots see the same state. Positions are frames; zoom is frames per pixel (fractional when
// zoomed in past one frame per pixel).

#include "llib/snd/peakview.h"

#include <QLineF>
#include <QPixmap>
#include <QVector>
#include <QWidget>

#include <functional>
#include <vector>

class QScrollBar;
class SEFileGUI;

class SEWaveformView : public QWidget {
    Q_OBJECT
public:
    static constexpr int kRulerHeight = 22;
    static constexpr double kMinFramesPerPixel = 1.0 / 16.0;

    SEWaveformView(SEFileGUI& view, QWidget* parent = nullptr);

    [[nodiscard]] SEFileGUI& GetView() const { return m_view; }
    // When it answers true the document is being changed by work on another thread.
    void SetBusyCheck(std::function<bool()> isBusy) { m_isBusy = std::move(isBusy); }

    // ---- zoom and scrolling ----
    [[nodiscard]] double GetFramesPerPixel() const { return m_framesPerPixel; }
    [[nodiscard]] double GetFirstFrame() const { return m_firstFrame; }
    void SetZoom(double framesPerPixel, double anchorFrame, int anchorX);
    void ZoomIn();
    void ZoomOut();
    void ZoomToSelection();
    void ZoomAll();
    void ScrollTo(double firstFrame);
    // Vertical zoom: the lanes show full scale divided by this (1, 2, 4, ...).
    [[nodiscard]] double GetVerticalZoom() const { return m_verticalZoom; }
    void SetVerticalZoom(double zoom);

    // ---- geometry ----
    // The frame under pixel column `x` of the lanes, and back.
    [[nodiscard]] long long FrameAt(int x) const;
    [[nodiscard]] int XOf(double frame) const;
    // The rectangle of channel `channel`'s lane.
    [[nodiscard]] QRect LaneRect(int channel) const;
    [[nodiscard]] int GetLanesWidth() const;

    // ---- playback ----
    // The play cursor's frame, or negative for none; the view keeps it in sight while playing.
    void SetPlayPosition(long long frame);

    // The document changed (length, audio, selection): reload and repaint.
    void DocumentChanged();

signals:
    // The user placed the cursor or dragged a selection (start == end: none).
    void selectionRequested(long long start, long long end, long long cursor);
    void zoomChanged();

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    [[nodiscard]] long long GetLength() const;
    [[nodiscard]] int GetChannels() const;
    void UpdateScrollBar();
    void ClampView();
    void PaintRuler(QPainter& painter, int width);
    // `columns` device-pixel columns; `ratio` device pixels per logical pixel.
    void PaintLane(QPainter& painter, int channel, int columns, double ratio);

public:
    // Draws the whole view with `painter` (a widget or an offscreen picture of the view's size).
    void Render(QPainter& painter);

private:
    SEFileGUI& m_view;
    QScrollBar* m_scroll = nullptr;
    std::function<bool()> m_isBusy;
    LPeakView m_peaks;
    std::vector<LPeakColumn> m_columns;
    QVector<QLineF> m_normal;
    QVector<QLineF> m_selected;
    QPixmap m_last; // the last picture, shown while the document is busy
    double m_framesPerPixel = 1024.0;
    double m_firstFrame = 0.0;
    double m_scrollUnitFrames = 1.0; // frames per scroll-bar step
    double m_verticalZoom = 1.0;
    long long m_playPosition = -1;
    long long m_anchor = 0; // where the dragged selection started
    bool m_dragging = false;
    bool m_zoomedAll = true; // keep the whole document in view when it or the widget changes
};
