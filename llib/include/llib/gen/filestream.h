// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// File streams over POSIX descriptors (always close-on-exec), used by the structured data files
// and every small file the system writes. All offsets and sizes are bytes.
//
// - LOutputStreamFile: creates or truncates a file and writes it through a 64 KiB buffer; Seek
//   allows the back-patching of lengths. By default the file is held under an exclusive advisory
//   lock while open (truncation happens only once the lock is held).
// - LInputStreamFile: buffered reading with seeking; LInputStreamFileShared additionally holds
//   a shared lock while open, so a reader never sees a file half rewritten by a locking writer.
// - LReadWriteFile: unbuffered positioned reads and writes of an existing or new file under an
//   exclusive lock, for in-place updates.
//
// Every stream keeps a sticky ok flag: after the first failure, writes do nothing and return
// false, and Close reports the failure. Reads are exact: Read returns false (and reads nothing
// useful) when fewer bytes remain than asked. Streams are driven by one thread at a time.

#include "llib/unix/fd.h"
#include "llib/unix/filelock.h"

#include <cstdint>
#include <memory>

enum class LFileLocking : unsigned char { kNone = 0, kLock = 1 };

class LOutputStreamFile {
public:
    LOutputStreamFile() = default;
    ~LOutputStreamFile() { (void)Close(); }
    LOutputStreamFile(LOutputStreamFile const&) = delete;
    LOutputStreamFile& operator=(LOutputStreamFile const&) = delete;

    // Creates (mode 0644) or truncates `path`; false when it cannot be opened or, with locking,
    // the exclusive lock is not granted within the lock wait.
    [[nodiscard]] bool Open(char const* path, LFileLocking locking = LFileLocking::kLock);
    // Takes over an already open descriptor (a temporary file), writing from offset 0.
    [[nodiscard]] bool Adopt(LFileDescriptor fd);

    [[nodiscard]] bool Write(void const* data, std::uint64_t bytes);
    [[nodiscard]] bool Seek(std::uint64_t offset);
    [[nodiscard]] std::uint64_t GetOffset() const { return m_bufferStart + m_bufferBytes; }
    [[nodiscard]] bool IsOk() const { return m_ok && m_fd.IsOpen(); }
    [[nodiscard]] bool Flush();
    // Flushes and forces the data to the disk (before a rename that must not lose it).
    [[nodiscard]] bool Sync();
    // Flushes, unlocks and closes; true only if the stream was open and every write succeeded.
    [[nodiscard]] bool Close();

private:
    static constexpr std::uint64_t kBufferBytes = 64 * 1024;

    // Made before any descriptor or lock is taken, so running out of memory leaves nothing held.
    [[nodiscard]] bool AllocateBuffer();

    LFileDescriptor m_fd;
    LFileLock m_lock;
    std::unique_ptr<unsigned char[]> m_buffer;
    std::uint64_t m_bufferStart = 0; // file offset of m_buffer[0]
    std::uint64_t m_bufferBytes = 0;
    bool m_ok = false;
};

class LInputStreamFile {
public:
    LInputStreamFile() = default;
    virtual ~LInputStreamFile() = default;
    LInputStreamFile(LInputStreamFile const&) = delete;
    LInputStreamFile& operator=(LInputStreamFile const&) = delete;

    [[nodiscard]] virtual bool Open(char const* path);
    [[nodiscard]] bool Read(void* data, std::uint64_t bytes);
    [[nodiscard]] bool Seek(std::uint64_t offset);
    [[nodiscard]] std::uint64_t GetOffset() const { return m_offset; }
    [[nodiscard]] std::uint64_t GetSize() const { return m_size; }
    [[nodiscard]] bool IsOpen() const { return m_fd.IsOpen(); }
    virtual void Close();

protected:
    // Re-reads the file's size (after a lock was granted) and drops buffered bytes.
    [[nodiscard]] bool RefreshSize();

    LFileDescriptor m_fd;

private:
    static constexpr std::uint64_t kBufferBytes = 64 * 1024;

    std::unique_ptr<unsigned char[]> m_buffer;
    std::uint64_t m_bufferStart = 0;
    std::uint64_t m_bufferBytes = 0;
    std::uint64_t m_offset = 0;
    std::uint64_t m_size = 0;
};

class LInputStreamFileShared final : public LInputStreamFile {
public:
    // Opens and takes a shared lock, waiting at most the lock wait; false if either fails.
    [[nodiscard]] bool Open(char const* path) override;
    void Close() override;

private:
    LFileLock m_lock;
};

class LReadWriteFile {
public:
    LReadWriteFile() = default;
    ~LReadWriteFile() { (void)Close(); }
    LReadWriteFile(LReadWriteFile const&) = delete;
    LReadWriteFile& operator=(LReadWriteFile const&) = delete;

    // Opens (creating when `create`) for reading and writing under an exclusive lock.
    [[nodiscard]] bool Open(char const* path, bool create);
    [[nodiscard]] bool Read(void* data, std::uint64_t bytes);
    [[nodiscard]] bool Write(void const* data, std::uint64_t bytes);
    [[nodiscard]] bool Seek(std::uint64_t offset);
    [[nodiscard]] std::uint64_t GetOffset() const { return m_offset; }
    [[nodiscard]] std::uint64_t GetSize() const;
    [[nodiscard]] bool Truncate(std::uint64_t bytes);
    [[nodiscard]] bool IsOk() const { return m_ok && m_fd.IsOpen(); }
    [[nodiscard]] bool Close();

private:
    LFileDescriptor m_fd;
    LFileLock m_lock;
    std::uint64_t m_offset = 0;
    bool m_ok = false;
};
