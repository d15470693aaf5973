#include <SensorListener.h>

// No sensor service is wired into this build: every query answers "no",
// except the two calls whose callers treat 1 as "nothing to do".

SensorListener* SensorListener::createInstance(const char*) {
    return nullptr;
}

SensorListenerImp::SensorListenerImp(const char*) {}

SensorListenerImp::~SensorListenerImp() = default;

void SensorListenerImp::destroyInstance() {
    delete this;
}

SensorListener::Result SensorListenerImp::setListener(void (*)()) {
    return 1;
}

SensorListener::Result SensorListenerImp::enableSensor(SensorTypeEnum, unsigned int) {
    return 0;
}

SensorListener::Result SensorListenerImp::disableSensor(SensorTypeEnum) {
    return 0;
}

SensorListener::Result SensorListenerImp::init() {
    return 0;
}

SensorListener::Result SensorListenerImp::uninit() {
    return 0;
}

SensorListener::Result SensorListenerImp::getEvents() {
    return 0;
}

SensorListener::Result SensorListenerImp::isSupport() {
    return 0;
}

int SensorListenerImp_callback(int, int, void*) {
    return 1;
}
