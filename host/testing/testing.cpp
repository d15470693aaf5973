#include <qrnhost/testing.h>

#include <filesystem>
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

size_t linkedRecipients(const Service& service) {
    sp<hidl::Connection> c = hidl::lookup(service.descriptor, service.instance);
    return c == nullptr ? 0 : c->linkedRecipients();
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

KernelNodes::KernelNodes() = default;

KernelNodes::~KernelNodes() {
    for (const std::string& p : mRedirected) kernelfs::clear(p);
}

void KernelNodes::set(const std::string& fixedPath, const std::string& contents) {
    const std::filesystem::path file = root() + fixedPath;
    std::filesystem::create_directories(file.parent_path());
    writeFile(file.string(), contents);
    kernelfs::redirect(fixedPath, file.string());
    mRedirected.push_back(fixedPath);
}

void KernelNodes::remove(const std::string& fixedPath) {
    std::error_code ec;
    std::filesystem::remove(root() + fixedPath, ec);
    // Below a directory that is never made, so that a node the code writes
    // cannot be created by opening it either.
    kernelfs::redirect(fixedPath, root() + "/.missing" + fixedPath);
    mRedirected.push_back(fixedPath);
}

std::string KernelNodes::contents(const std::string& fixedPath) const {
    return readFile(root() + fixedPath);
}

void reset() {
    hidl::unregisterAll();
    perf::reset();
    properties::reset();
    kernelfs::reset();
}

}  // namespace qrnhost::testing
