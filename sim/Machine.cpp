#include "sim/Machine.h"

namespace sim {

void Machine::addFile(const std::string& path, std::shared_ptr<DeviceFile> file) {
    std::lock_guard<std::mutex> lock(mutex_);
    files_[path] = std::move(file);
}

void Machine::addTextFile(const std::string& path, const std::string& text) {
    addFile(path, std::make_shared<TextFile>(text));
}

std::shared_ptr<DeviceFile> Machine::file(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = files_.find(path);
    return it == files_.end() ? nullptr : it->second;
}

bool Machine::isDirectory(const std::string& path) const {
    std::string prefix = path;
    if (prefix.empty() || prefix.back() != '/')
        prefix += '/';
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = files_.lower_bound(prefix);
    return it != files_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

std::shared_ptr<VideoNode> Machine::addVideoNode(std::shared_ptr<VideoNode> node) {
    const VideoNodeConfig& c = node->config();
    std::string name = "video" + std::to_string(c.number);
    addFile("/dev/" + name, node);
    if (!c.modalias.empty())
        addTextFile("/sys/class/video4linux/" + name + "/device/modalias", c.modalias + "\n");
    addTextFile("/sys/class/video4linux/" + name + "/name", c.card + "\n");
    std::lock_guard<std::mutex> lock(mutex_);
    videoNodes_[c.number] = node;
    return node;
}

std::shared_ptr<VideoNode> Machine::videoNode(int number) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = videoNodes_.find(number);
    return it == videoNodes_.end() ? nullptr : it->second;
}

std::shared_ptr<I2cBus> Machine::i2cBus(int number) {
    std::shared_ptr<I2cBus> bus;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& slot = i2cBuses_[number];
        if (slot)
            return slot;
        slot = std::make_shared<I2cBus>(number);
        bus = slot;
    }
    addFile("/dev/i2c-" + std::to_string(number), bus);
    return bus;
}

void Machine::addHidDevice(std::shared_ptr<HidDeviceModel> device) {
    std::lock_guard<std::mutex> lock(mutex_);
    hid_.push_back(std::move(device));
}

std::vector<std::shared_ptr<HidDeviceModel>> Machine::hidDevices() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return hid_;
}

}  // namespace sim
