package android.hardware.power.stats;

/** How long and how often an entity was in one of its states. */
parcelable StateResidency {
    /** Which state. */
    int id;
    /** Time in the state since boot, in milliseconds. */
    long totalTimeInStateMs;
    /** How often the state was entered since boot. */
    long totalStateEntryCount;
    /** When the state was last entered, in milliseconds since boot. */
    long lastEntryTimestampMs;
}
