#include "zpkeys.h"

ZPKeys::~ZPKeys() {
    for (size_t i = 0; directory_ != nullptr && i < directory_->size; ++i) {
        Chunk* const chunk = directory_->chunks[i];
        for (size_t k = 0; chunk != nullptr && k < kChunk; ++k)
            delete chunk->extras[k];
        delete chunk;
    }
    free(directory_);
}

ZPKeyExtra* ZPKeys::extraIn(const Directory* directory, ZPId id) {
    const Chunk* chunk = zloadMade(directory->chunks[id / kChunk]);
    return chunk == nullptr ? nullptr : zloadMade(chunk->extras[id % kChunk]);
}

void ZPKeys::setLongValue(ZPId id, uint32_t length) { extra(id)->valueLength = length; }
uint32_t ZPKeys::longName(ZPId id) const { return extra(id)->nameLength; }
uint32_t ZPKeys::longValue(ZPId id) const { return extra(id)->valueLength; }

void ZPKeys::coverByDirectory() {
    if (directory_ == nullptr || records_.end() + records_.room() <= directory_->size * kChunk)
        return;
    Directory* const grown = newDirectory();
    memcpy(grown->chunks, directory_->chunks, directory_->size * sizeof(Chunk*));
    free(directory_);
    directory_ = grown;
}

// An empty one.
ZPKeys::Directory* ZPKeys::newDirectory() const {
    const size_t size = (records_.end() + records_.room()) / kChunk + 1;
    Directory* const fresh = static_cast<Directory*>(
        zrequireMemory(calloc(1, sizeof(Directory) + size * sizeof(Chunk*))));
    fresh->size = size;
    return fresh;
}

ZPKeyExtra& ZPKeys::makeExtra(ZPId id) const {
    Directory* directory = zloadMade(directory_);
    if (directory == nullptr) {
        std::unique_ptr<Directory, ZPFree> fresh(newDirectory());
        directory = zpublish(directory_, std::move(fresh));
    }
    Chunk*& place = directory->chunks[id / kChunk];
    Chunk* chunk = zloadMade(place);
    if (chunk == nullptr)
        chunk = zpublish(place, std::unique_ptr<Chunk>(new Chunk));
    ZPKeyExtra*& extra = chunk->extras[id % kChunk];
    ZPKeyExtra* const made = zloadMade(extra);
    return made != nullptr ? *made : *zpublish(extra, std::unique_ptr<ZPKeyExtra>(new ZPKeyExtra));
}

void ZPKeys::dropExtra(ZPId id) {
    ZPKeyExtra* const old = extra(id);
    if (old == nullptr)
        return;
    if (records_[id].nameLength != kLong)
        return deleteExtra(id);
    const uint32_t nameLength = old->nameLength;
    old->~ZPKeyExtra();
    ::new (static_cast<void*>(old)) ZPKeyExtra;
    old->nameLength = nameLength;
}

void ZPKeys::deleteExtra(ZPId id) {
    if (ZPKeyExtra* const old = extra(id)) {
        directory_->chunks[id / kChunk]->extras[id % kChunk] = nullptr;
        delete old;
    }
}
