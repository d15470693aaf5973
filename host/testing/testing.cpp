#include <qrnhost/testing.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace qrnhost::testing {

using vendor::quarnel::hardware::power::V2_0::IPower;

Service powerService() {
    return Service{IPower::descriptor, "default"};
}

sp<power::SimPowerService> startPowerService(const power::Config& config) {
    return power::startDefaultService(config);
}

bool kill(const Service& service) {
    return hidl::declareServiceDead(service.descriptor, service.instance);
}

bool withdraw(const Service& service) {
    return hidl::withdrawService(service.descriptor, service.instance);
}

bool waitForDeathNotices(const Service& service, std::chrono::milliseconds timeout) {
    return hidl::waitForDeathNotices(service.descriptor, service.instance, timeout);
}

void makeLinkToDeathReturnFalse(const Service& service, Times times) {
    hidl::makeLinkToDeathReturnFalse(service.descriptor, service.instance, times);
}

void makeLinkToDeathFail(const Service& service, const Status& status, Times times) {
    hidl::makeLinkToDeathFail(service.descriptor, service.instance, status, times);
}

void clearLinkToDeathFaults(const Service& service) {
    hidl::clearLinkToDeathFaults(service.descriptor, service.instance);
}

Status transportFailure(const std::string& message) {
    return Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED, message.c_str());
}

Status deadObject() {
    return Status::fromStatusT(::android::DEAD_OBJECT);
}

KernelNodes::KernelNodes() {
    std::error_code ec;
    std::filesystem::path base = std::filesystem::temp_directory_path(ec);
    if (ec) base = "/tmp";
    std::string pattern = (base / "qrnhost-kernel-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) abort();  // a test cannot go on without it
    mRoot = pattern;
}

KernelNodes::~KernelNodes() {
    for (const std::string& p : mRedirected) kernelfs::clear(p);
    std::error_code ec;
    std::filesystem::remove_all(mRoot, ec);
}

void KernelNodes::set(const std::string& fixedPath, const std::string& contents) {
    const std::filesystem::path file = mRoot + fixedPath;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary | std::ios::trunc) << contents;
    kernelfs::redirect(fixedPath, file.string());
    mRedirected.push_back(fixedPath);
}

void KernelNodes::remove(const std::string& fixedPath) {
    std::error_code ec;
    std::filesystem::remove(mRoot + fixedPath, ec);
    kernelfs::redirect(fixedPath, mRoot + fixedPath);
    mRedirected.push_back(fixedPath);
}

std::string KernelNodes::contents(const std::string& fixedPath) const {
    std::ifstream in(mRoot + fixedPath, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void reset() {
    hidl::unregisterAll();
    perf::reset();
    properties::reset();
    kernelfs::reset();
}

}  // namespace qrnhost::testing
