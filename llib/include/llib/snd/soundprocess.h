// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// LSoundProcessBase: the base of every transforming source (LSRC...). It holds one reference to
// the source it wraps and forwards every operation it does not define itself (Seek, positions,
// ControlMessage, streaming) to it, so releasing the outermost source of a chain releases the
// whole chain. It copies the input's rate, channel count and level bound; a wrapper over an
// input in error takes kInputError. Read is the subclass's; it must not allocate.
//
// LSoundProcess: the settings side of an effect (LSP...). It holds plain settings, no audio
// state, and OpenSource builds a source that processes an input with a copy of them, so the
// effect may be changed or deleted while that source lives. Effects sit on intrusive lists.
//
// Every effect also describes itself to a generic editor: its parameters by index (each with a
// type, name, unit and range in an LSoundProcessParameter), its named presets, and its record in
// the structured data format. A record holds a container 0x1000 with the base's own chunks (the
// bypass flag as a bool under 0x2000) and then the effect's settings at the top level, one chunk
// per setting; loaders skip tags they do not know, and a chunk too short for its field leaves
// the field as it was.

#include "llib/gen/filestream.h"
#include "llib/gen/list.h"
#include "llib/gen/sdf.h"
#include "llib/gen/stringlong.h"
#include "llib/snd/soundsource.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <type_traits>

class LSoundProcessBase : public LSoundSourceBase {
public:
    explicit LSoundProcessBase(LSoundSource const& input);
    // For sources whose output format differs from the input's (converters).
    LSoundProcessBase(LSoundSource const& input, int sampleRateHz, unsigned char channels);

    void Seek(long long frame) override;
    [[nodiscard]] long long GetPositionSample() const override;
    [[nodiscard]] long long GetEndSample() const override;
    long ControlMessage(int id, long* value) override;
    [[nodiscard]] long long AdjustRelativeOffset(long long offset, long long reference) override;
    [[nodiscard]] bool IsStreaming() const override;
    void WaitForStreamingData(int ms) override;

    [[nodiscard]] LSoundSource const& GetInput() const { return m_input; }

protected:
    LSoundSource m_input;
};

// The value types of effect parameters (the numbers are stored in records and dialogs).
enum class LSoundProcessParameterType : std::int32_t {
    kInt = 0,    // 32-bit signed
    kDouble = 3, // 64-bit float
    kInt8 = 4,   // 8-bit signed
    kBool = 5,
    kInt64 = 7,  // 64-bit signed
    kUInt16 = 9, // 16-bit unsigned
};

// The byte size of one value of `type` (0 for none of the above).
[[nodiscard]] int LSoundProcessParameterSize(LSoundProcessParameterType type);

// One parameter as an effect describes it: type, label, unit, range and current value. The
// caller owns it and may pass it to GetParameterByIndex again for another index; each Init
// replaces what it held.
class LSoundProcessParameter {
public:
    LSoundProcessParameter() = default;
    LSoundProcessParameter(LSoundProcessParameter const&) = delete;
    LSoundProcessParameter& operator=(LSoundProcessParameter const&) = delete;

    // Sets type, range, name and unit; `T` must have the type's size.
    template <class T>
    void Init(LSoundProcessParameterType type, T minimum, T maximum, char const* name,
              char const* unit) {
        static_assert(std::is_trivially_copyable_v<T>);
        Allocate(type, sizeof(T), name, unit);
        std::memcpy(m_minimum.get(), &minimum, sizeof(T));
        std::memcpy(m_maximum.get(), &maximum, sizeof(T));
    }
    // A switch: its range is false to true.
    void Init(char const* name) {
        Init<bool>(LSoundProcessParameterType::kBool, false, true, name, "");
    }

    template <class T>
    void SetValue(T value) {
        if (m_initialised && sizeof(T) == static_cast<std::size_t>(m_valueSize)) {
            std::memcpy(m_value.get(), &value, sizeof(T));
        }
    }
    // The value as `T` (zero when the sizes differ).
    template <class T>
    [[nodiscard]] T GetValue() const {
        return Read<T>(m_value.get());
    }
    template <class T>
    [[nodiscard]] T GetMinimum() const {
        return Read<T>(m_minimum.get());
    }
    template <class T>
    [[nodiscard]] T GetMaximum() const {
        return Read<T>(m_maximum.get());
    }
    [[nodiscard]] void const* GetValueData() const { return m_value.get(); }

    [[nodiscard]] LSoundProcessParameterType GetType() const { return m_type; }
    [[nodiscard]] char const* GetName() const { return m_name; }
    [[nodiscard]] char const* GetUnit() const { return m_unit; }
    [[nodiscard]] int GetValueSize() const { return m_valueSize; }
    [[nodiscard]] bool IsInitialised() const { return m_initialised; }

private:
    void Allocate(LSoundProcessParameterType type, std::size_t bytes, char const* name,
                  char const* unit);
    template <class T>
    T Read(unsigned char const* data) const {
        T value{};
        if (m_initialised && sizeof(T) == static_cast<std::size_t>(m_valueSize)) {
            std::memcpy(&value, data, sizeof(T));
        }
        return value;
    }

    LSoundProcessParameterType m_type = LSoundProcessParameterType::kInt;
    char m_name[kLMaxText] = {};
    char m_unit[kLMaxText] = {};
    int m_valueSize = 0;
    std::unique_ptr<unsigned char[]> m_minimum;
    std::unique_ptr<unsigned char[]> m_maximum;
    std::unique_ptr<unsigned char[]> m_value;
    bool m_initialised = false;
};

using LSoundProcessWriter = LSDFWriter<LOutputStreamFile>;
using LSoundProcessReader = LSDFReader<LInputStreamFile>;
using LSoundProcessChunks = LSDFReaderChunkIterator<LInputStreamFile>;

inline constexpr std::uint16_t kLSoundProcessBaseRecord = 0x1000;
inline constexpr std::uint16_t kLSoundProcessBypass = 0x2000;

class LSoundProcess : public LListLink<LSoundProcess> {
public:
    LSoundProcess() = default;
    virtual ~LSoundProcess() = default;

    // A new source reading `input` through this effect.
    [[nodiscard]] virtual LSoundSource OpenSource(LSoundSource& input) = 0;
    // The display name into a caller buffer of kLMaxText characters.
    virtual void GetName(char* name) const;
    [[nodiscard]] virtual int GetSoundProcessType() const { return 0; }
    // A copy with the same settings, or null for effects that cannot be copied.
    [[nodiscard]] virtual std::unique_ptr<LSoundProcess> GetNewCopy() const { return nullptr; }
    [[nodiscard]] virtual bool IsValid() const { return true; }

    // ---- parameters, for the generic effect editor ----
    [[nodiscard]] virtual int GetNumParameters() { return 0; }
    // Sets parameter `index` from a value of its type; an index out of range does nothing.
    virtual void SetParameterByIndex(int index, void const* value) {
        (void)index;
        (void)value;
    }
    // Describes parameter `index` into `parameter`; an index out of range leaves it untouched.
    virtual void GetParameterByIndex(int index, LSoundProcessParameter* parameter) {
        (void)index;
        (void)parameter;
    }

    // ---- records ----
    // Writes the record: the base container, then the effect's settings.
    virtual bool SaveToSDF(LSoundProcessWriter& writer) const;
    // Reads the record from the chunks of the current container.
    virtual bool LoadFromSDF(LSoundProcessReader& reader, LSoundProcessChunks& chunks);
    bool LoadFromSDF(LSoundProcessChunks& chunks) {
        return LoadFromSDF(chunks.GetReader(), chunks);
    }

    // ---- editors ----
    // 1: the built-in parameter editor.
    [[nodiscard]] virtual int GetEditorType() { return 1; }
    [[nodiscard]] virtual bool IsExternalGUI() { return false; }

    // ---- presets ----
    [[nodiscard]] virtual int GetNumPresets() { return 0; }
    // The name of preset `index` into a caller buffer of kLMaxText characters ("" when none).
    virtual void GetPresetsName(int index, char* name);
    // Applies preset `index`; an index outside the table is ignored.
    virtual void SetPreset(int index) { (void)index; }
    virtual void SetPresetData(void* data) { (void)data; }
    // The preset equal to the present settings, or -1.
    [[nodiscard]] virtual int GetIndexInPreset() { return -1; }

    [[nodiscard]] bool IsBypassed() const { return m_bypass; }
    void SetBypassed(bool bypass) { m_bypass = bypass; }

protected:
    LSoundProcess(LSoundProcess const&) = default;
    LSoundProcess& operator=(LSoundProcess const&) = default;

    // The base's part of a record: the container with the bypass flag.
    bool SaveBaseRecord(LSoundProcessWriter& writer) const;
    // Walks the chunks of a record: the base container is read here, every other chunk goes to
    // `own`, which returns false to have it skipped (an unknown tag).
    bool LoadRecord(LSoundProcessReader& reader, LSoundProcessChunks& chunks,
                    std::function<void(LSoundProcessChunks& chunk)> const& own);

private:
    bool m_bypass = false;
};
