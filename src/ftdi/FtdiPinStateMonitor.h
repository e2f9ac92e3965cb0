#pragma once

#include "AbstractPinStateMonitor.h"

class FtdiCommandHandler;
class FtdiService;

/// Owns the life of the USB link: connects, reads the board's messages and runs the change
/// detection after each, and connects again after a loss. Never pauses.
class FtdiPinStateMonitor : public AbstractPinStateMonitor {
public:
    /// `restart` makes the quick connection attempts restart the board.
    FtdiPinStateMonitor(FtdiCommandHandler* handler, bool restart);

    /// Without a restart.
    explicit FtdiPinStateMonitor(FtdiCommandHandler* handler);

    void run() override;

    /// To be called before start(); the service stays the caller's.
    virtual void setFtdiService(FtdiService* service) { ftdiService = service; }

private:
    bool connectQuickly();
    void connectSlowly();
    void serveDevice();
    bool prepareDevice();
    void readMessages();

    FtdiService* ftdiService = nullptr;
    bool restart;
};
