// Sensor listener: the interface through which camera components subscribe
// to device sensors. The implementation in this library is a stub that
// reports sensors as unsupported; createInstance() makes no object.
#pragma once

class SensorListener {
  public:
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
    virtual bool setListener(void (*listener)()) = 0;
    virtual bool enableSensor(SensorTypeEnum type, unsigned int rate) = 0;
    virtual bool disableSensor(SensorTypeEnum type) = 0;
    virtual bool init() = 0;
    virtual bool uninit() = 0;
    virtual bool getEvents() = 0;
    virtual bool isSupport() = 0;
};

class SensorListenerImp : public SensorListener {
  public:
    explicit SensorListenerImp(const char* user);
    ~SensorListenerImp() override;
    void destroyInstance() override;
    bool setListener(void (*listener)()) override;
    bool enableSensor(SensorTypeEnum type, unsigned int rate) override;
    bool disableSensor(SensorTypeEnum type) override;
    bool init() override;
    bool uninit() override;
    bool getEvents() override;
    bool isSupport() override;
};

// Event-loop callback shape (descriptor, events, user data); answers 1.
int SensorListenerImp_callback(int fd, int events, void* data);
