// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/qt/effectdialog.h"

#include "editor/seeffectdialog.h"
#include "llib/snd/soundprocess.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

#include <cmath>

namespace {

constexpr int kSliderSteps = 1000;

int DecimalsFor(SEParameterNumbers const& n) {
    if (n.integral) {
        return 0;
    }
    double const span = n.maximum - n.minimum;
    return span >= 1000.0 ? 1 : span >= 10.0 ? 2 : 4;
}

} // namespace

SEEffectDialog::SEEffectDialog(QWidget* parent, QString const& title, LSoundProcess& effect,
                               SEEffectPreview preview)
    : QDialog(parent), m_effect(effect), m_preview(std::move(preview)) {
    setWindowTitle(title);
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    layout->addLayout(form);

    int const presets = m_effect.GetNumPresets();
    if (presets > 0) {
        m_presets = new QComboBox(this);
        m_presets->addItem(tr("(custom)"));
        char name[kLMaxText];
        for (int i = 0; i < presets; ++i) {
            m_effect.GetPresetsName(i, name);
            m_presets->addItem(QString::fromUtf8(name));
        }
        m_presets->setAccessibleName(tr("Preset"));
        form->addRow(tr("Preset"), m_presets);
        connect(m_presets, &QComboBox::currentIndexChanged, this, [this](int row) {
            if (m_loading || row < 1) {
                return;
            }
            m_effect.SetPreset(row - 1);
            LoadFromEffect();
        });
    }

    LSoundProcessParameter p;
    int const count = m_effect.GetNumParameters();
    m_rows.resize(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        m_effect.GetParameterByIndex(i, &p);
        SEParameterNumbers const n = SEGetParameterNumbers(p);
        m_initial.push_back(n.value);
        Row& row = m_rows[static_cast<std::size_t>(i)];
        row.minimum = n.minimum;
        row.maximum = n.maximum;
        QString label = QString::fromUtf8(p.GetName());
        if (p.GetUnit()[0] != '\0') {
            label += QStringLiteral(" (%1)").arg(QString::fromUtf8(p.GetUnit()));
        }
        if (n.isSwitch) {
            row.check = new QCheckBox(this);
            row.check->setAccessibleName(label);
            form->addRow(label, row.check);
            connect(row.check, &QCheckBox::toggled, this,
                    [this, i](bool on) { SetValue(i, on ? 1.0 : 0.0); });
            continue;
        }
        auto* line = new QHBoxLayout;
        row.slider = new QSlider(Qt::Horizontal, this);
        row.slider->setRange(0, kSliderSteps);
        row.box = new QDoubleSpinBox(this);
        row.box->setRange(n.minimum, n.maximum);
        row.box->setDecimals(DecimalsFor(n));
        row.box->setAccessibleName(label);
        row.box->setKeyboardTracking(false);
        line->addWidget(row.slider, 1);
        line->addWidget(row.box);
        form->addRow(label, line);
        connect(row.box, &QDoubleSpinBox::valueChanged, this,
                [this, i](double value) { SetValue(i, value); });
        connect(row.slider, &QSlider::valueChanged, this, [this, i](int step) {
            Row const& r = m_rows[static_cast<std::size_t>(i)];
            SetValue(i, r.minimum + (r.maximum - r.minimum) * step / kSliderSteps);
        });
    }

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    if (m_preview) {
        QPushButton* play = buttons->addButton(tr("Preview"), QDialogButtonBox::ActionRole);
        connect(play, &QPushButton::clicked, this, [this] { m_preview(m_effect); });
    }
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    LoadFromEffect();
}

QDoubleSpinBox* SEEffectDialog::GetValueBox(int index) const {
    if (index < 0 || static_cast<std::size_t>(index) >= m_rows.size()) {
        return nullptr;
    }
    return m_rows[static_cast<std::size_t>(index)].box;
}

void SEEffectDialog::SetValue(int index, double value) {
    if (m_loading) {
        return;
    }
    SESetParameterNumber(m_effect, index, value);
    LoadFromEffect();
}

void SEEffectDialog::LoadFromEffect() {
    m_loading = true;
    LSoundProcessParameter p;
    for (std::size_t i = 0; i < m_rows.size(); ++i) {
        m_effect.GetParameterByIndex(static_cast<int>(i), &p);
        SEParameterNumbers const n = SEGetParameterNumbers(p);
        Row& row = m_rows[i];
        if (row.check != nullptr) {
            row.check->setChecked(n.value != 0.0);
            continue;
        }
        row.box->setValue(n.value);
        double const span = row.maximum - row.minimum;
        row.slider->setValue(span > 0.0 ? static_cast<int>(std::lround((n.value - row.minimum) /
                                                                       span * kSliderSteps))
                                        : 0);
    }
    if (m_presets != nullptr) {
        m_presets->setCurrentIndex(m_effect.GetIndexInPreset() + 1);
    }
    m_loading = false;
}

void SEEffectDialog::reject() {
    for (std::size_t i = 0; i < m_initial.size(); ++i) {
        SESetParameterNumber(m_effect, static_cast<int>(i), m_initial[i]);
    }
    QDialog::reject();
}

SEValuesDialog::SEValuesDialog(QWidget* parent, QString const& title, SECommandFields const& fields)
    : QDialog(parent) {
    setWindowTitle(title);
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    layout->addLayout(form);
    for (SECommandField const& field : fields) {
        auto* edit = new QLineEdit(QString::fromStdString(field.value), this);
        edit->setAccessibleName(QString::fromStdString(field.label));
        edit->setObjectName(QString::fromStdString(field.key));
        form->addRow(QString::fromStdString(field.label), edit);
        m_edits.push_back(edit);
    }
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

void SEValuesDialog::TakeValues(SECommandFields& fields) const {
    for (std::size_t i = 0; i < fields.size() && i < m_edits.size(); ++i) {
        fields[i].value = m_edits[i]->text().toStdString();
    }
}
