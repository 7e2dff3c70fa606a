#include "actions/ActionOptionSchemas.h"
#include "builtin/BuiltInOptionSchemas.h"
#include "tests/support/TestHome.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

using Options = QMap<QString, QString>;

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

struct Refusal {
    const char* schema;
    Options options;
    QString message; // "@" stands for the test's folder
};

class OptionSchemaRefusals : public ::testing::TestWithParam<Refusal> {};

QString folder()
{
    static QTemporaryDir dir;
    static const bool made = [] {
        QDir(dir.path()).mkpath(QStringLiteral("out"));
        QFile plain(QDir(dir.path()).filePath(QStringLiteral("plain.sh")));
        plain.open(QIODevice::WriteOnly);
        plain.write("echo no shebang\n");
        QFile locked(QDir(dir.path()).filePath(QStringLiteral("locked.sh")));
        locked.open(QIODevice::WriteOnly);
        locked.write("#!/bin/sh\n");
        locked.setPermissions(QFileDevice::WriteOwner);
        return true;
    }();
    Q_UNUSED(made);
    return dir.path();
}

TEST_P(OptionSchemaRefusals, RefusesWithTheMessage)
{
    const Refusal& refusal = GetParam();
    Options options;
    for (auto it = refusal.options.cbegin(); it != refusal.options.cend(); ++it) {
        options.insert(it.key(), QString(it.value()).replace(u'@', folder()));
    }
    const auto outcome =
        ActionOptionSchemas::validate(QString::fromUtf8(refusal.schema), options, folder());
    const auto* error = std::get_if<ActionOptionValidationError>(&outcome);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->message, QString(refusal.message).replace(u'@', folder()));
}

const Options NoOptions;

INSTANTIATE_TEST_SUITE_P(
    Messages, OptionSchemaRefusals,
    ::testing::Values(
        Refusal{"PhotoPanel", NoOptions, "'PhotoPanel' is not supported by the command line."},
        Refusal{"OpenURL",
                {{"url", "https://example.com"}, {"colour", "red"}},
                "Unknown option 'colour'. Valid options are: url"},
        Refusal{"ConvertImages",
                {{"format", "png"}},
                "Unknown option 'format'. Valid options are: output_format, output_quality, "
                "output_folder_option, path, keep_originals"},
        Refusal{"ResizeImages",
                {{"output_quality", "80"}},
                "At least one of 'output_width' or 'output_height' is required."},
        Refusal{"ResizeImages",
                {{"output_width", "wide"}},
                "Option 'output_width' must be a whole number, not 'wide'."},
        Refusal{"ResizeImages",
                {{"output_width", "100"}, {"output_quality", "101"}},
                "Option 'output_quality' must be between 0 and 100."},
        Refusal{"ResizeImages",
                {{"output_width", "100"}, {"output_format", "bmp"}},
                "Option 'output_format' must be one of: png, jpg, jpeg, webp, tiff, tif, gif, "
                "heic, heif (not 'bmp')."},
        Refusal{"ResizeImages",
                {{"output_width", "100"}, {"keep_originals", "maybe"}},
                "Option 'keep_originals' must be true or false, not 'maybe'."},
        Refusal{"ResizeImages",
                {{"output_width", "100"}, {"output_folder_option", "2"}},
                "Option 'path' is required when 'output_folder_option' is 2."},
        Refusal{"ConvertImages",
                {{"output_format", "webp"}, {"output_folder_option", "2"}},
                "Option 'path' is required when 'output_folder_option' is 2."},
        Refusal{"FileModification",
                {{"output_folder_option", "2"}},
                "Option 'path' is required when 'output_folder_option' is 2."},
        Refusal{"ExtendedLogin",
                {{"server", "example.com"}, {"username", "me"}, {"path", "@/id_ed25519"}},
                "SSH key authentication needs both 'path' (private key) and 'path_secondary' "
                "(public key)."},
        Refusal{"ExtendedLogin",
                {{"server", "example.com"}, {"username", "me"}, {"passphrase", "secret"}},
                "'passphrase' only applies to SSH key authentication; also provide 'path' and "
                "'path_secondary'."},
        Refusal{"ExtendedLogin",
                {{"server", "example.com"}, {"username", "me"}, {"port", "70000"}},
                "Option 'port' must be between 1 and 65535."},
        Refusal{
            "ChooseScript", {{"path", "missing.sh"}}, "The script '@/missing.sh' does not exist."},
        Refusal{"ChooseScript", {{"path", "out"}}, "The selected script must be a file."},
        Refusal{"ChooseScript",
                {{"path", "plain.sh"}},
                "The selected script needs a shebang on its first line, such as #!/bin/zsh or "
                "#!/usr/bin/env python3."},
        Refusal{"ChooseScript", NoOptions, "Option 'path' is required."},
        Refusal{"OpenURL",
                {{"url", "file://@/gone.html"}},
                "'@/gone.html' for option 'url' does not exist."},
        Refusal{"OpenURL",
                {{"url", "javascript:alert(1)"}},
                "Option 'url' must be a URL, not 'javascript:alert(1)'."},
        Refusal{"TinyURL",
                {{"domain", "bad domain!"}},
                "Option 'domain' does not match the pattern [A-Za-z0-9.-]+."},
        Refusal{"ChooseFolder",
                {{"path", "nowhere"}},
                "Option 'path' must name an existing folder: @/nowhere"}));

TEST(OptionSchemas, AnUnreadableScriptIsRefused)
{
    if (::geteuid() == 0) {
        GTEST_SKIP() << "root reads every file";
    }
    const auto outcome = ActionOptionSchemas::validate(
        QStringLiteral("ChooseScript"), {{QStringLiteral("path"), QStringLiteral("locked.sh")}},
        folder());
    ASSERT_TRUE(std::holds_alternative<ActionOptionValidationError>(outcome));
    EXPECT_EQ(std::get<ActionOptionValidationError>(outcome).message,
              QStringLiteral("The selected script is not readable."));
}

TEST(OptionSchemas, TabledHelpTextsAndDefaults)
{
    const QList<ActionOptionSpec> resize =
        *ActionOptionSchemas::schema(QStringLiteral("ResizeImages"));
    QStringList keys;
    for (const ActionOptionSpec& entry : resize) {
        keys << entry.key;
    }
    EXPECT_EQ(keys,
              (QStringList{"output_width", "output_height", "output_quality", "output_format",
                           "output_folder_option", "path", "keep_originals", "convert_only"}));
    EXPECT_EQ(
        resize.at(0).help,
        QStringLiteral("Maximum output width in pixels (at least one of width/height required)"));
    EXPECT_EQ(resize.at(4).help, QStringLiteral("Where resized images are written"));
    EXPECT_EQ(resize.at(4).defaultValue, QStringLiteral("0"));
    EXPECT_EQ(resize.at(7).help, QStringLiteral("Convert format only without resizing"));
    EXPECT_EQ(resize.at(7).defaultValue, QStringLiteral("0"));
    const QList<ActionOptionSpec> video =
        *ActionOptionSchemas::schema(QStringLiteral("VideoDownloader"));
    EXPECT_EQ(video.at(2).key, QStringLiteral("max_resolution"));
    EXPECT_EQ(video.at(2).defaultValue, QStringLiteral("1080"));
    EXPECT_EQ(video.at(3).help, QStringLiteral("Legacy option: true selects H.264, false selects "
                                               "Original; video_format takes precedence"));
    EXPECT_TRUE(ActionOptionSchemas::helpText(QStringLiteral("ConvertImages"))
                    .contains(QStringLiteral("  output_folder_option: Where converted images are "
                                             "written [0|1|2|3] (default: 0)\n")));
}

TEST(OptionSchemas, AcceptedOptionsTakeDefaultsAndKeepSecretsApart)
{
    const QString dir = folder();
    auto outcome = ActionOptionSchemas::validate(
        QStringLiteral("ResizeImages"),
        {{QStringLiteral("output_width"), QStringLiteral("800")},
         {QStringLiteral("keep_originals"), QStringLiteral("yes")},
         {QStringLiteral("output_folder_option"), QStringLiteral("2")},
         {QStringLiteral("path"), QStringLiteral("out")}},
        dir);
    ASSERT_TRUE(std::holds_alternative<ValidatedActionOptions>(outcome));
    const ValidatedActionOptions resize = std::get<ValidatedActionOptions>(outcome);
    EXPECT_EQ(resize.variables.value(QStringLiteral("output_width")), QStringLiteral("800"));
    EXPECT_EQ(resize.variables.value(QStringLiteral("keep_originals")), QStringLiteral("1"));
    EXPECT_EQ(resize.variables.value(QStringLiteral("convert_only")), QStringLiteral("0"));
    EXPECT_EQ(resize.variables.value(QStringLiteral("path")),
              QDir(dir).filePath(QStringLiteral("out")));

    outcome = ActionOptionSchemas::validate(
        QStringLiteral("ExtendedLogin"), {{QStringLiteral("server"), QStringLiteral("example.com")},
                                          {QStringLiteral("username"), QStringLiteral("me")},
                                          {QStringLiteral("password"), QStringLiteral("s3cret")}});
    ASSERT_TRUE(std::holds_alternative<ValidatedActionOptions>(outcome));
    const ValidatedActionOptions login = std::get<ValidatedActionOptions>(outcome);
    EXPECT_EQ(login.secret, QStringLiteral("s3cret"));
    EXPECT_FALSE(login.variables.contains(QStringLiteral("password")));
    EXPECT_EQ(login.variables.value(QStringLiteral("port")), QStringLiteral("22"));
}

TEST(OptionSchemas, RegisterTheirSheetsForActionFiles)
{
    registerBuiltInOptionSchemas();
    const auto sftp = ActionOptionSchemas::find(QStringLiteral("ExtendedLogin"));
    ASSERT_TRUE(sftp);
    EXPECT_TRUE(sftp->needsKeychainStorage);
    EXPECT_EQ(sftp->keychainPasswordKey, QStringLiteral("password"));
    const auto url = ActionOptionSchemas::find(QStringLiteral("OpenURL"));
    ASSERT_TRUE(url);
    ASSERT_EQ(url->options.size(), 1);
    EXPECT_EQ(url->options.first().key, QStringLiteral("url"));
    EXPECT_FALSE(url->needsKeychainStorage);
}

} // namespace
