// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// SEEffectDialog: the one dialog every effect is set up in, built from the effect's indexed
// parameters: a row per parameter (a check box for a switch, else a slider beside a spin box over
// the parameter's range), the effect's presets in a list (choosing one sets its values; changing
// a value shows which preset, if any, the values now match), and Preview, OK and Cancel. The
// dialog writes into the effect as the user changes values, so Preview plays exactly what OK
// would apply; Cancel puts the values the dialog opened with back.
//
// SEValuesDialog: the plain form the commands that are not parameter-based effects ask through
// (a list of labelled text fields).

#include "editor/seui.h"

#include <QDialog>

#include <vector>

class LSoundProcess;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLineEdit;
class QSlider;

class SEEffectDialog : public QDialog {
    Q_OBJECT
public:
    SEEffectDialog(QWidget* parent, QString const& title, LSoundProcess& effect,
                   SEEffectPreview preview);

    // The parameter rows' value boxes and the preset list, for tests and accessibility.
    [[nodiscard]] QDoubleSpinBox* GetValueBox(int index) const;
    [[nodiscard]] QComboBox* GetPresetBox() const { return m_presets; }

public slots:
    void reject() override;

private:
    struct Row {
        QDoubleSpinBox* box = nullptr;
        QSlider* slider = nullptr;
        QCheckBox* check = nullptr;
        double minimum = 0.0;
        double maximum = 0.0;
    };

    void SetValue(int index, double value);
    // Shows the effect's present values in every row and the matching preset.
    void LoadFromEffect();

    LSoundProcess& m_effect;
    SEEffectPreview m_preview;
    std::vector<Row> m_rows;
    std::vector<double> m_initial;
    QComboBox* m_presets = nullptr;
    bool m_loading = false;
};

class SEValuesDialog : public QDialog {
    Q_OBJECT
public:
    SEValuesDialog(QWidget* parent, QString const& title, SECommandFields const& fields);
    // The answers, in the fields' order.
    void TakeValues(SECommandFields& fields) const;
    [[nodiscard]] QLineEdit* GetEdit(int index) const { return m_edits.at(index); }

private:
    std::vector<QLineEdit*> m_edits;
};
