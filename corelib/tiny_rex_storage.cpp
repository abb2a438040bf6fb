// tiny_rex_storage: reads and writes files of compiled patterns. A node is written exactly as
// it lies in memory, so a file is only portable between hosts of the same byte order; every
// node read back is still checked by the matcher before it is used, so a damaged file costs
// at most a match, never a wild read.
#include "tiny_rex_storage.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "ow_file.h"
#include "ow_internal.hpp"

static_assert(sizeof(TRexNode) == 16, "the record's node is the engine's node");
static_assert(sizeof(int32_t) == 4);

namespace {

constexpr long kMaxBlock = 65535;  // bytes of nodes in one record
constexpr unsigned int kRegularFile = 16;

}  // namespace

extern "C" {

bool trs_valid_file(FILE* fp) {
    if (fp == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (std::fseek(fp, 0, SEEK_SET) != 0) {
        OW_ERROR("failed to rewind file position: %s", std::strerror(errno));
        return false;
    }
    int32_t magic = 0;
    errno = 0;
    if (std::fread(&magic, 1, sizeof magic, fp) != sizeof magic) {
        OW_ERROR("failed to read header bit: %s", std::strerror(errno));
        return false;
    }
    return magic == TRS_MAGIC;
}

bool trs_set_header(FILE* fp) {
    if (fp == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (std::fseek(fp, 0, SEEK_SET) != 0) {
        OW_ERROR("failed to rewind file position: %s", std::strerror(errno));
        return false;
    }
    if (std::fflush(fp) != 0) {
        OW_ERROR("failed to flush STDIO buffers: %s", std::strerror(errno));
        return false;
    }
    if (::ftruncate(::fileno(fp), 0) != 0) {
        OW_ERROR("failed to truncate file: %s", std::strerror(errno));
        return false;
    }
    const int32_t magic = TRS_MAGIC;
    errno = 0;
    if (std::fwrite(&magic, sizeof magic, 1, fp) != 1) {
        OW_ERROR("failed to write header: %s", std::strerror(errno));
        return false;
    }
    return true;
}

bool trs_store(FILE* fp, const TRex* exp) {
    if (fp == nullptr || exp == nullptr || exp->nsize < 1 || exp->nodes == nullptr ||
        exp->nsize > exp->nallocated) {
        OW_EINVAL();
        return false;
    }
    if (static_cast<long>(exp->nsize) * 16 > kMaxBlock) {
        OW_ERROR("allocation %d size exceeds maximum sane boundaries", exp->nsize);
        return false;
    }
    OW_DEBUG("writing out nsize %d for node block size", exp->nsize);
    const int32_t count = exp->nsize;
    errno = 0;
    if (std::fwrite(&count, sizeof count, 1, fp) != 1) {
        OW_ERROR("Error writing node block size: %s", std::strerror(errno));
        return false;
    }
    for (int32_t i = 0; i < count; ++i) {
        errno = 0;
        if (std::fwrite(&exp->nodes[i], sizeof(TRexNode), 1, fp) != 1) {
            OW_ERROR("Error writing node #%d: %s", i, std::strerror(errno));
            return false;
        }
    }
    return true;
}

bool trs_next(FILE* fp, TRex* exp) {
    if (fp == nullptr || exp == nullptr || std::feof(fp)) {
        OW_EINVAL();
        return false;
    }
    exp->cursor = nullptr;  // the facts of the pattern this record replaces no longer hold
    unsigned char raw[sizeof(int32_t)] = {};
    errno = 0;
    const std::size_t got = std::fread(raw, 1, sizeof raw, fp);
    std::memcpy(&exp->nallocated, raw, sizeof raw);
    if (got == 0 && std::feof(fp)) {
        OW_DEBUG("end of file. terminating");
        exp->nallocated = 0;
        return false;
    }
    if (got != sizeof raw) {
        OW_ERROR("Error reading node block size: %s", std::strerror(errno));
        OW_ERROR("nallocated is %d", exp->nallocated);
        OW_ERROR("bytes read is %d", static_cast<int>(got));
        exp->nallocated = 0;
        return false;
    }
    OW_DEBUG("read nallocated value of %d", exp->nallocated);
    const int32_t count = exp->nallocated;
    if (count == 0) {
        OW_ERROR("node count size of zero read: invalid regex");
        return false;
    }
    const long long block = static_cast<long long>(count) * 16;
    if (count < 0 || block > kMaxBlock) {
        OW_ERROR("block size %lld exceeds sane boundaries", block);
        exp->nallocated = 0;
        return false;
    }
    std::free(exp->nodes);
    // count is at most TRS_MAX_NODES here, so the size cannot overflow.
    exp->nodes = static_cast<TRexNode*>(
        ow::mem_calloc(1, static_cast<std::size_t>(count) * 16 + ow::trex_tail_bytes(count)));
    if (exp->nodes == nullptr) {
        OW_ENOMEM();
        exp->nallocated = 0;
        return false;
    }
    for (int32_t i = 0; i < count; ++i) {
        if (std::fread(&exp->nodes[i], sizeof(TRexNode), 1, fp) != 1) {
            OW_ERROR("short read when attempting to read node #%d", i);
            return false;
        }
    }
    ow::trex_prepare(exp);
    return true;
}

bool compiled_regex_match(const char* path, const char* subject) {
    if (path == nullptr || *path == '\0' || subject == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (!ow_file_exists_ex(path, kRegularFile)) return false;
    FILE* fp = std::fopen(path, "rb");
    if (fp == nullptr || !trs_valid_file(fp)) {
        OW_ERROR("file [%s] is not a valid ordwin generated regex file", path);
        if (fp != nullptr) std::fclose(fp);
        return false;
    }
    auto* exp = static_cast<TRex*>(ow::mem_calloc(1, sizeof(TRex)));
    if (exp == nullptr) {
        OW_ENOMEM();
        std::fclose(fp);
        return false;
    }
    bool matched = false;
    // A read error never sets the end-of-file flag, so it ends the loop too.
    while (!matched && !std::feof(fp) && !std::ferror(fp)) {
        std::free(exp->nodes);
        std::memset(static_cast<void*>(exp), 0, sizeof *exp);
        if (!trs_next(fp, exp)) continue;  // a bad record: go on from where the read stopped
        matched = trex_match(exp, subject);
    }
    trex_free(exp);
    std::fclose(fp);
    return matched;
}

}  // extern "C"
