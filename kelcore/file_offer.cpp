#include "kelcore/file_offer.h"

#include "kelcore/file_values.h"

namespace {

class Reader {
  public:
    explicit Reader(const KelContainer& values) : values_(values) {}

    void operator()(const char* name, std::optional<KelString>& value) const {
        if (values_.Has(name)) value = values_.GetString(name);
    }
    void operator()(const char* name, std::optional<bool>& value) const {
        if (values_.Has(name)) value = values_.GetBool(name);
    }
    void operator()(const char* name, std::optional<std::int32_t>& value) const {
        if (values_.Has(name)) value = values_.GetInt32(name);
    }
    void operator()(const char* name, std::optional<std::int64_t>& value) const {
        if (values_.Has(name)) value = values_.GetInt64(name);
    }
    void operator()(const char* name, std::optional<KelContainer>& value) const {
        if (values_.Has(name)) value = values_.GetContainer(name);
    }

  private:
    const KelContainer& values_;
};

class Writer {
  public:
    explicit Writer(KelContainer& values) : values_(values) {}

    void operator()(const char* name, const std::optional<KelString>& value) const {
        if (value) values_.SetString(name, *value);
    }
    void operator()(const char* name, const std::optional<bool>& value) const {
        if (value) values_.SetBool(name, *value);
    }
    void operator()(const char* name, const std::optional<std::int32_t>& value) const {
        if (value) values_.SetInt32(name, *value);
    }
    void operator()(const char* name, const std::optional<std::int64_t>& value) const {
        if (value) values_.SetInt64(name, *value);
    }
    void operator()(const char* name, const std::optional<KelContainer>& value) const {
        if (value) values_.SetContainer(name, *value);
    }

  private:
    KelContainer& values_;
};

/// The one list of names and members, for both directions.
template <class Offer, class Visitor>
void VisitValues(Offer& offer, const Visitor& visit) {
    visit(kValueSourceDevice, offer.sourceDevice);
    visit(kValueFirstRelay, offer.firstRelay);
    visit(kValueDevicePath, offer.devicePath);
    visit(kValueFileInfo, offer.info);
    visit(kValueWakeOnLan, offer.wakeOnLan);
    visit(kValueUpstream, offer.upstream);
    visit(kValueKeepCopy, offer.keepCopy);
    visit(kValueFileSize, offer.size);
    visit(kValuePriority, offer.priority);
    visit(kValueBypass, offer.bypass);
    visit(kValueTransportMode, offer.transportMode);
    visit(kValueRepeated, offer.repeated);
    visit(kValueMovePath, offer.movePath);
    visit(kValueCopyPath, offer.copyPath);
    visit(kValueFilePath, offer.filePath);
    visit(kValueFileUrl, offer.url);
}

}  // namespace

FileOffer FileOffer::Read(const KelContainer& values) {
    FileOffer offer;
    offer.key = FileKey::Read(values);
    VisitValues(offer, Reader(values));
    return offer;
}

void FileOffer::Write(KelContainer& values) const {
    key.Write(values);
    if (key.checksum.empty()) values.Remove(kValueFileChecksum);
    VisitValues(*this, Writer(values));
}

KelContainer FileOffer::ToContainer() const {
    KelContainer values;
    Write(values);
    return values;
}
