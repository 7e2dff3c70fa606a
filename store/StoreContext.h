#pragma once

class AlertHelper;
class GridStoreHooks;
class Icons;
class NotificationCenter;
class SecretStore;
class Settings;

// What the grid store and its records report to and read from; the engine that uses the
// store hands it in.
struct StoreContext {
    Settings& settings;
    NotificationCenter& notifications;
    AlertHelper& alerts;
    SecretStore& secrets;
    Icons& icons;
    GridStoreHooks& hooks;
};
