# The schedule's arithmetic (looper/internal/TimerSchedule.h, header only)
# is tested directly.
target_include_directories(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR})
