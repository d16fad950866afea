#pragma once

#include <zip.h>

#include <memory>
#include <stdexcept>
#include <utility>

#include "kel/types.h"

/// Names and contents of a zip archive's entries, in their order; throws when it is damaged.
inline KelVector<std::pair<KelString, KelString>> ReadZip(const KelString& path) {
    const std::unique_ptr<zip, void (*)(zip*)> archive(zip_open(path.c_str(), ZIP_CHECKCONS, nullptr),
                                                       zip_discard);
    if (!archive) throw std::runtime_error("no archive " + path);
    KelVector<std::pair<KelString, KelString>> entries;
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive.get(), 0); ++i) {
        const auto index = static_cast<zip_uint64_t>(i);
        zip_stat_t stat;
        zip_stat_index(archive.get(), index, 0, &stat);
        const std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> file(zip_fopen_index(archive.get(), index, 0),
                                                                     zip_fclose);
        KelString content(stat.size, '\0');
        if (!file || zip_fread(file.get(), content.data(), stat.size) != static_cast<zip_int64_t>(stat.size))
            throw std::runtime_error("damaged archive " + path);
        entries.emplace_back(stat.name, content);
    }
    return entries;
}
