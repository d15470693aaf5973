#include <SensorListener.h>

// No sensor service is wired into this build: every query answers "no",
// except the two calls whose callers treat 1 as "nothing to do".

SensorListener* SensorListener::createInstance(const char*) { return nullptr; }

SensorListenerImp::SensorListenerImp(const char*) {}

SensorListenerImp::~SensorListenerImp() = default;

void SensorListenerImp::destroyInstance() { delete this; }

bool SensorListenerImp::setListener(void (*)()) { return true; }

bool SensorListenerImp::enableSensor(SensorTypeEnum, unsigned int) { return false; }

bool SensorListenerImp::disableSensor(SensorTypeEnum) { return false; }

bool SensorListenerImp::init() { return false; }

bool SensorListenerImp::uninit() { return false; }

bool SensorListenerImp::getEvents() { return false; }

bool SensorListenerImp::isSupport() { return false; }

int SensorListenerImp_callback(int, int, void*) { return 1; }
