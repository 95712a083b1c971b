// SPDX-License-Identifier: GPL-3.0-or-later
// Opening a file as a document's audio and saving audio to a file without ever leaving a
// half-written file under the target's name.
#include "llib/snd/gensource.h"

#include "llib/snd/cache.h"
#include "llib/snd/cutlistaudio.h"
#include "llib/snd/filetagdata.h"
#include "llib/snd/prsourcesink.h"
#include "llib/snd/wavtags.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

// A temporary file beside `path` with the same extension (the sink is chosen by it), so the
// final rename stays on one file system and replaces the target in one step.
bool MakeTemporaryBeside(std::string const& path, std::string& temporary) {
    std::size_t const slash = path.find_last_of('/');
    std::string const folder = slash == std::string::npos ? "." : path.substr(0, slash);
    std::string const name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string const ext = LGenFileExtension(path.c_str());
    std::string pattern = folder + "/." + name + ".XXXXXX" + ext;
    int const fd = mkstemps(pattern.data(), static_cast<int>(ext.size()));
    if (fd < 0) {
        return false;
    }
    // mkstemps makes the file private; the result should get the usual permissions.
    mode_t const mask = umask(0);
    umask(mask);
    (void)fchmod(fd, 0666 & ~mask);
    close(fd);
    temporary = pattern;
    return true;
}

} // namespace

LProcessResult ProcessGenSaveSource(LProcessInterface& process, LSoundSource& source,
                                    char const* path, int rate, unsigned char channels,
                                    LGenSinkFormat const* format, LFileTagData const* tags) {
    std::string const target = path != nullptr ? path : "";
    std::string temporary;
    if (target.empty() || !MakeTemporaryBeside(target, temporary)) {
        process.SetErrorF("Cannot create a file in the folder of \"%s\" (%s).", target.c_str(),
                          std::strerror(errno));
        return LProcessResult::kFailed;
    }
    bool const wave = LGenFileExtension(target.c_str()) == ".wav";
    LProcessResult result = LProcessResult::kFailed;
    {
        LSoundSink sink = LGenSinkOpenSink(temporary.c_str(), rate, channels, tags, format);
        if (sink->IsFailed()) {
            if (wave) {
                process.SetErrorF("Cannot write the file \"%s\".", target.c_str());
            } else {
                process.SetErrorF("Tessel cannot write files of this type (\"%s\").",
                                  LGenFileExtension(target.c_str()).c_str());
            }
        } else {
            LPRSourceToSink copy("", source, sink, false);
            result = Process(process, copy);
            // The final header is written here, not when the sink goes, so its failure counts.
            if (result == LProcessResult::kCompleted && !sink->Finish()) {
                process.SetErrorF("Cannot write the file \"%s\" (%s).", target.c_str(),
                                  std::strerror(errno));
                result = LProcessResult::kFailed;
            }
        }
    }
    if (result == LProcessResult::kCompleted && wave && tags != nullptr && tags->GetCount() > 0 &&
        !LWavTagsWrite(temporary.c_str(), *tags)) {
        process.SetErrorF("Cannot write the tags of \"%s\".", target.c_str());
        result = LProcessResult::kFailed;
    }
    if (result == LProcessResult::kCompleted &&
        std::rename(temporary.c_str(), target.c_str()) != 0) {
        process.SetErrorF("Cannot replace the file \"%s\" (%s).", target.c_str(),
                          std::strerror(errno));
        result = LProcessResult::kFailed;
    }
    if (result != LProcessResult::kCompleted) {
        (void)unlink(temporary.c_str());
    }
    return result;
}

LProcessResult ProcessGenOpenCutList(LProcessInterface& process, char const* path,
                                     LCutListAudio& list) {
    long long modifiedNs = 0;
    unsigned long long size = 0;
    if (path == nullptr || !LSoundCacheFileModifiedTimeAndSizeGet(path, modifiedNs, size)) {
        LSoundSource missing = LMakeErrorSource(LSoundSourceErrorCode::kCannotOpen);
        (void)ProcessGenSourceGetError(process, missing, path);
        return LProcessResult::kFailed;
    }
    unsigned short const item = LSoundCacheItemOriginalFileDetailsMatch(path, modifiedNs, size, 0);
    if (item != kLSoundCacheItemNone) {
        int rate = 0;
        unsigned char channels = 0;
        long long const frames = LSoundCacheItemLengthGet(item);
        bool const known = LSoundCacheItemAudioInfoGet(
            LSoundCache::GetFilePath(item, kLSoundCacheExtAudInfo).c_str(), rate, channels);
        if (known && frames > 0) {
            list.SetSingleCutListSegment(LCutListSegment(item, 0, frames), rate, channels);
            (void)LSoundCacheItemLastAccessTimeUpdate(item);
            LSoundCache::DecRef(item); // the segment holds its own
            return LProcessResult::kCompleted;
        }
        LSoundCache::DecRef(item);
    }
    LSoundSource source;
    LProcessResult const opened = ProcessGenSourceOpenSource(source, path, process);
    if (opened != LProcessResult::kCompleted) {
        return opened;
    }
    LCutListAudio fresh;
    LProcessResult const added = LSoundCutListAdd(process, path, source, fresh, true);
    if (added == LProcessResult::kCompleted) {
        list = std::move(fresh);
    }
    return added;
}

LProcessResult ProcessGenSaveCutList(LProcessInterface& process, LCutListAudio const& list,
                                     char const* path, LGenSinkFormat const* format,
                                     LFileTagData const* tags) {
    LSoundSource source = list.OpenSource();
    return ProcessGenSaveSource(process, source, path, list.GetSampleRate(), list.GetChannels(),
                                format, tags);
}
