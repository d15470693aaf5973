// Sensor listener: the interface through which camera components subscribe
// to device sensors. The implementation in this library is a stub that
// reports sensors as unsupported; createInstance() makes no object.
#pragma once

#include <stdint.h>

class SensorListener {
  public:
    // The yes/no answers are 32-bit: camera components built against this
    // interface read the whole 32-bit result register, whose upper bits a
    // one-byte bool leaves undefined.
    using Result = int32_t;

    enum SensorTypeEnum {
        SensorType_Acc = 0,
        SensorType_Mag,
        SensorType_Gyro,
        SensorType_Light,
        SensorType_Proximity,
        SensorType_Num,
    };

    // Always null in this build: no sensor listener is available.
    static SensorListener* createInstance(const char* user = nullptr);

    virtual ~SensorListener() = default;
    virtual void destroyInstance() = 0;
    virtual Result setListener(void (*listener)()) = 0;
    virtual Result enableSensor(SensorTypeEnum type, unsigned int rate) = 0;
    virtual Result disableSensor(SensorTypeEnum type) = 0;
    virtual Result init() = 0;
    virtual Result uninit() = 0;
    virtual Result getEvents() = 0;
    virtual Result isSupport() = 0;
};

class SensorListenerImp : public SensorListener {
  public:
    explicit SensorListenerImp(const char* user);
    ~SensorListenerImp() override;
    void destroyInstance() override;
    Result setListener(void (*listener)()) override;
    Result enableSensor(SensorTypeEnum type, unsigned int rate) override;
    Result disableSensor(SensorTypeEnum type) override;
    Result init() override;
    Result uninit() override;
    Result getEvents() override;
    Result isSupport() override;
};

// Event-loop callback shape (descriptor, events, user data); answers 1.
int SensorListenerImp_callback(int fd, int events, void* data);
