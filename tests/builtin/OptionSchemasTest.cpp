#include "actions/ActionOptionSchemas.h"
#include "builtin/ActionInfo.h"
#include "builtin/BuiltInActionCatalog.h"
#include "builtin/BuiltInOptionSchemas.h"
#include "store/GridAction.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using Options = QMap<QString, QString>;

// A folder with an output folder, a script without a shebang and an unreadable one.
QString folder()
{
    static QTemporaryDir dir;
    static const bool made = [] {
        QDir(dir.path()).mkpath("out");
        QFile plain(QDir(dir.path()).filePath("plain.sh"));
        plain.open(QIODevice::WriteOnly);
        plain.write("echo no shebang\n");
        QFile locked(QDir(dir.path()).filePath("locked.sh"));
        locked.open(QIODevice::WriteOnly);
        locked.write("#!/bin/sh\n");
        locked.setPermissions(QFileDevice::WriteOwner);
        return true;
    }();
    Q_UNUSED(made);
    return dir.path();
}

// "@" stands for the test's folder.
QString here(QString text)
{
    return text.replace(u'@', folder());
}

// The schemas as the application registers them at start-up.
class RegisteredSchemas : public ::testing::Environment {
public:
    void SetUp() override
    {
        ActionOptionSchemas::registerStandardSchemas();
        registerBuiltInOptionSchemas();
    }
};
const auto* const registered = ::testing::AddGlobalTestEnvironment(new RegisteredSchemas);

// The options as KEY=VALUE&...
auto validate(const char* schema, const char* given)
{
    Options options;
    for (const QString& pair : QString::fromUtf8(given).split(u'&', Qt::SkipEmptyParts)) {
        options.insert(pair.section(u'=', 0, 0), here(pair.section(u'=', 1)));
    }
    return ActionOptionSchemas::validate(QString::fromUtf8(schema), options, folder());
}

struct Refusal {
    const char* schema;
    const char* options;
    const char* message;
};

const Refusal Refusals[] = {
    {"PhotoPanel", "", "'PhotoPanel' is not supported by the command line."},
    {"OpenURL", "url=https://example.com&colour=red",
     "Unknown option 'colour'. Valid options are: url"},
    {"ResizeImages", "output_quality=80",
     "At least one of 'output_width' or 'output_height' is required."},
    {"ResizeImages", "output_width=wide",
     "Option 'output_width' must be a whole number, not 'wide'."},
    {"ResizeImages", "output_width=0", "Option 'output_width' must be between 1 and 100000."},
    {"ResizeImages", "output_width=100&output_quality=101",
     "Option 'output_quality' must be between 0 and 100."},
    {"ResizeImages", "output_width=100&output_format=bmp",
     "Option 'output_format' must be one of: png, jpg, jpeg, webp, tiff, tif, gif, heic, heif "
     "(not 'bmp')."},
    {"ResizeImages", "output_width=100&keep_originals=maybe",
     "Option 'keep_originals' must be true or false, not 'maybe'."},
    {"ResizeImages", "output_width=100&output_folder_option=2",
     "Option 'path' is required when 'output_folder_option' is 2."},
    {"ConvertImages", "output_format=webp&output_folder_option=2",
     "Option 'path' is required when 'output_folder_option' is 2."},
    {"FileModification", "output_folder_option=2",
     "Option 'path' is required when 'output_folder_option' is 2."},
    {"ExtendedLogin", "server=example.com&username=me&path=@/id_ed25519",
     "SSH key authentication needs both 'path' (private key) and 'path_secondary' (public key)."},
    {"ExtendedLogin", "server=example.com&username=me&passphrase=secret",
     "'passphrase' only applies to SSH key authentication; also provide 'path' and "
     "'path_secondary'."},
    {"ExtendedLogin", "server=example.com&username=me&port=70000",
     "Option 'port' must be between 1 and 65535."},
    {"ChooseScript", "path=missing.sh", "The script '@/missing.sh' does not exist."},
    {"ChooseScript", "path=out", "The selected script must be a file."},
    {"ChooseScript", "path=plain.sh",
     "The selected script needs a shebang on its first line, such as #!/bin/zsh or "
     "#!/usr/bin/env python3."},
    {"ChooseScript", "", "Option 'path' is required."},
    {"OpenURL", "url=file://@/gone.html", "'@/gone.html' for option 'url' does not exist."},
    {"OpenURL", "url=javascript:alert(1)",
     "Option 'url' must be a URL, not 'javascript:alert(1)'."},
    {"TinyURL", "domain=bad domain!", "Option 'domain' does not match the pattern [A-Za-z0-9.-]+."},
    {"ChooseFolder", "path=nowhere", "Option 'path' must name an existing folder: @/nowhere"},
};

TEST(OptionSchemas, RefuseWithTheMessage)
{
    for (const Refusal& row : Refusals) {
        SCOPED_TRACE(row.message);
        const auto outcome = validate(row.schema, row.options);
        const auto* error = std::get_if<ActionOptionValidationError>(&outcome);
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->message, here(QString::fromUtf8(row.message)));
    }
    if (::geteuid() != 0) { // root reads every file
        const auto outcome = validate("ChooseScript", "path=locked.sh");
        ASSERT_TRUE(std::holds_alternative<ActionOptionValidationError>(outcome));
        EXPECT_EQ(std::get<ActionOptionValidationError>(outcome).message,
                  "The selected script is not readable.");
    }
}

// What is stored for one key of an accepted set: values are normalised, defaults filled in,
// and a secret kept apart from the variables ("secret" is that one, "-" means absent).
struct Acceptance {
    const char* schema;
    const char* options;
    const char* key;
    const char* stored;
};

const char* const Resize = "output_width= 800 &keep_originals=Yes&output_folder_option=2&path=out";
const char* const Login = "server=example.com&username=me&password=s3cret";

const Acceptance Acceptances[] = {
    {"ResizeImages", Resize, "output_width", "800"},
    {"ResizeImages", Resize, "keep_originals", "1"},
    {"ResizeImages", Resize, "convert_only", "0"},
    {"ResizeImages", Resize, "path", "@/out"},
    {"ResizeImages", "output_height=5&keep_originals=FALSE", "keep_originals", "0"},
    {"ResizeImages", "output_height=5", "output_folder_option", "0"},
    {"ConvertImages", "output_format= WEBP ", "output_format", "webp"},
    {"ExtendedLogin", Login, "port", "22"},
    {"ExtendedLogin", Login, "password", "-"},
    {"ExtendedLogin", Login, "secret", "s3cret"},
    {"OpenURL", "url= example.com ", "url", "example.com"},
};

TEST(OptionSchemas, AcceptedValuesAreStoredNormalised)
{
    for (const Acceptance& row : Acceptances) {
        SCOPED_TRACE(std::string(row.schema) + " " + row.key);
        const auto outcome = validate(row.schema, row.options);
        const auto* accepted = std::get_if<ValidatedActionOptions>(&outcome);
        ASSERT_NE(accepted, nullptr)
            << std::get<ActionOptionValidationError>(outcome).message.toStdString();
        const QString key = QString::fromUtf8(row.key);
        const QString stored =
            key == u"secret" ? accepted->secret.value_or("-") : accepted->variables.value(key, "-");
        EXPECT_EQ(stored, here(QString::fromUtf8(row.stored)));
    }
}

TEST(BuiltInActionCatalog, EntriesHaveShippedIconsAndKnownPanels)
{
    const BuiltInActionCatalog catalog;
    ASSERT_FALSE(catalog.availableActions().isEmpty());
    for (const ActionInfo& info : catalog.availableActions()) {
        SCOPED_TRACE(info.name.toStdString());
        if (!info.optionsNib.isEmpty()) {
            EXPECT_TRUE(ActionOptionSchemas::schema(info.optionsNib));
        }
        if (info.iconPath.isEmpty()) {
            continue; // an action whose system application is absent
        }
        QFile icon(info.iconPath);
        ASSERT_TRUE(icon.open(QIODevice::ReadOnly)) << info.iconPath.toStdString();
        EXPECT_TRUE(icon.read(8).startsWith("\x89PNG"));
    }
}

TEST(BuiltInActionCatalog, FindsEntriesByExactName)
{
    const BuiltInActionCatalog catalog;
    EXPECT_TRUE(catalog.getActionWithName("Run Script"));
    EXPECT_FALSE(catalog.getActionWithName("run script"));
    GridAction action;
    action.type = "Open URL";
    ASSERT_TRUE(catalog.getActionWithGridAction(action));
    EXPECT_EQ(catalog.getActionWithGridAction(action)->name, "Open URL");
}

} // namespace
