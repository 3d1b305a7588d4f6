#ifndef BRIMLOCK_FCT_QT_PATH_KEYS_H
#define BRIMLOCK_FCT_QT_PATH_KEYS_H

// The keys of UIPathManager. Start-up sets the first nine, in this order.
namespace path_key
{
constexpr char kUserBrimlock[] = "user_brimlock_path";
constexpr char kUserBrimlockApp[] = "user_brimlock_app_path";
constexpr char kUserBrimlockResource[] = "user_brimlock_resource_path";
constexpr char kUserBrimlockData[] = "user_brimlock_data_path";
constexpr char kUserBrimlockWorkingDir[] = "user_brimlock_working_dir_path";
constexpr char kUserBrimlockUi[] = "user_brimlock_ui_path";
constexpr char kUserLarkspire[] = "user_larkspire_path";
constexpr char kUserLarkspireResource[] = "user_larkspire_resource_path";
constexpr char kRootResource[] = "root_resource_path";

// Logged at start-up but never set: log readers expect their empty values.
constexpr char kUserLarkspireApp[] = "user_larkspire_app_path";
constexpr char kUserLarkspireData[] = "user_larkspire_data_path";
constexpr char kUserLarkspireWorkingDir[] = "user_larkspire_working_dir_path";
constexpr char kUserLarkspireDriveUi[] = "user_larkspire_drive_ui_path";
} // namespace path_key

#endif
