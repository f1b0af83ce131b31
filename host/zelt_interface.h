#pragma once
// The abstract interface through which the host loads and drives a plugin. Slot order is part of the host
// contract and must not change.

#include <QtPlugin>

struct LogList;

class ZeltInterface {
public:
    virtual ~ZeltInterface() = default;
    virtual bool init() = 0;
    virtual bool readData(LogList* list) = 0;
    virtual bool getEventData(LogList* list) = 0;
    virtual bool logCallback(LogList* list) = 0;
    virtual bool writeData(LogList* list) = 0;
    virtual bool stopPlugin() = 0;
};

#define ZeltInterface_iid "com.dornvale.ZELT/1.0.7"
Q_DECLARE_INTERFACE(ZeltInterface, ZeltInterface_iid)
