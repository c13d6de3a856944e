// End-to-end driver: runs the real kov_diagnostic for one case folder and
// checks its exit code, its output, the report it writes and its log file.
// The case format is described in tests/e2e/README.md.
#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

int gFailures = 0;

void fail(const QString& what) {
    ++gFailures;
    std::fprintf(stderr, "FAIL: %s\n", what.toLocal8Bit().constData());
}

// Shows control characters so that colour sequences and carriage returns are visible.
QString visible(const QByteArray& bytes) {
    QString out;
    for (char c : bytes) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\n')
            out += "\\n\n";
        else if (c == '\r')
            out += "\\r";
        else if (u < 0x20 || u == 0x7f)
            out += QString("\\x%1").arg(u, 2, 16, QChar('0'));
        else
            out += QChar::fromLatin1(c);
    }
    return out;
}

struct Result {
    int exitCode = -1;
    bool timedOut = false;
    QByteArray out, err;
};

// Runs the program with a chosen argv[0], environment and working directory,
// feeds `input` on standard input and collects both outputs.
Result runProgram(const QString& program, const QStringList& args, const QStringList& env, const QString& cwd,
                  const QByteArray& input, int timeoutSeconds) {
    Result r;
    int outPipe[2], errPipe[2], inPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0 || pipe(inPipe) != 0) {
        fail("cannot create pipes");
        return r;
    }
    std::vector<QByteArray> argStore, envStore;
    for (const QString& a : args)
        argStore.push_back(a.toLocal8Bit());
    for (const QString& e : env)
        envStore.push_back(e.toLocal8Bit());
    std::vector<char*> argv, envp;
    for (QByteArray& a : argStore)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    for (QByteArray& e : envStore)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    const QByteArray programPath = program.toLocal8Bit();
    const QByteArray dir = cwd.toLocal8Bit();

    const pid_t pid = fork();
    if (pid == 0) {
        dup2(inPipe[0], 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1], inPipe[0], inPipe[1]})
            close(fd);
        if (chdir(dir.constData()) != 0)
            _exit(125);
        execve(programPath.constData(), argv.data(), envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    close(inPipe[0]);
    signal(SIGPIPE, SIG_IGN);
    if (!input.isEmpty())
        (void)!write(inPipe[1], input.constData(), static_cast<size_t>(input.size()));
    close(inPipe[1]);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    bool outOpen = true, errOpen = true;
    char buffer[65536];
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outOpen ? outPipe[0] : -1, POLLIN, 0}, {errOpen ? errPipe[0] : -1, POLLIN, 0}};
        const int ready = poll(fds, 2, 200);
        if (std::chrono::steady_clock::now() > deadline) {
            r.timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
        if (ready <= 0)
            continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
                continue;
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                (i == 0 ? r.out : r.err).append(buffer, static_cast<int>(n));
            } else {
                (i == 0 ? outOpen : errOpen) = false;
            }
        }
    }
    close(outPipe[0]);
    close(errPipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status))
        r.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.exitCode = 128 + WTERMSIG(status);
    return r;
}

bool copyTree(const QString& from, const QString& to) {
    QDir().mkpath(to);
    QDirIterator it(from, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString target = to + "/" + QDir(from).relativeFilePath(path);
        const QFileInfo info(path);
        if (info.isDir()) {
            QDir().mkpath(target);
        } else {
            QDir().mkpath(QFileInfo(target).path());
            if (!QFile::copy(path, target))
                return false;
            QFile::setPermissions(target, info.permissions());
        }
    }
    return true;
}

QString expand(QString text, const QMap<QString, QString>& vars) {
    for (auto it = vars.constBegin(); it != vars.constEnd(); ++it)
        text.replace("${" + it.key() + "}", it.value());
    return text;
}

QStringList stringList(const QJsonValue& v, const QMap<QString, QString>& vars) {
    QStringList out;
    for (const QJsonValue& e : v.toArray())
        out << expand(e.toString(), vars);
    return out;
}

const char kMasked[] = "<masked>";

// Replaces the values named by "Node/key" (or "*/key") with a marker.
void maskReport(QJsonObject& report, const QStringList& masks) {
    for (const QString& mask : masks) {
        const int slash = mask.indexOf('/');
        if (slash < 0)
            continue;
        const QString node = mask.left(slash), key = mask.mid(slash + 1);
        for (const QString& name : report.keys()) {
            if (node != "*" && node != name)
                continue;
            QJsonObject o = report.value(name).toObject();
            if (o.contains(key)) {
                o.insert(key, kMasked);
                report.insert(name, o);
            }
        }
    }
}

QString compact(const QJsonValue& v) {
    if (v.isObject())
        return QString::fromUtf8(QJsonDocument(v.toObject()).toJson(QJsonDocument::Indented));
    if (v.isArray())
        return QString::fromUtf8(QJsonDocument(v.toArray()).toJson(QJsonDocument::Indented));
    return QString::fromUtf8(QJsonDocument(QJsonArray{v}).toJson(QJsonDocument::Compact));
}

void checkReport(const QJsonObject& spec, const QString& caseDir, const QString& cwd, const QString& home,
                 const QMap<QString, QString>& vars, bool update) {
    const QString where = spec.value("where").toString("cwd");
    const QString name = "KOV_Diagnostic_Results.json";
    const QString inCwd = cwd + "/" + name, inHome = home + "/" + name;
    const bool cwdHas = QFileInfo(inCwd).isFile(), homeHas = QFileInfo(inHome).isFile();
    if (where == "none") {
        if (cwdHas || homeHas)
            fail("a report was written although none was expected");
        return;
    }
    const QString path = where == "home" ? inHome : inCwd;
    if (!QFileInfo(path).isFile()) {
        fail("no report at " + path);
        return;
    }
    if (where == "home" && cwdHas)
        fail("a report was written in the working directory too");
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    const QByteArray bytes = file.readAll();
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        fail("the report is not a JSON object: " + error.errorString());
        return;
    }
    // The exact bytes: the indented serialisation, nothing else around it.
    if (doc.toJson(QJsonDocument::Indented) != bytes)
        fail("the report is not the indented serialisation");
    for (const QString& text : stringList(spec.value("raw_contains"), vars)) {
        if (!bytes.contains(text.toUtf8()))
            fail("the report file does not contain: " + text);
    }

    QJsonObject actual = doc.object();
    QStringList masks = {"Processor/datetime", "Processor/ramCapacity", "Processor/ramUsed"};
    masks += stringList(spec.value("mask"), vars);
    maskReport(actual, masks);

    const QStringList nodes = stringList(spec.value("nodes"), vars);
    for (const QString& n : nodes)
        if (!actual.contains(n))
            fail("the report has no \"" + n + "\" object");
    if (spec.value("exact_nodes").toBool(false)) {
        QStringList keys = actual.keys();
        QStringList wanted = nodes;
        keys.sort();
        wanted.sort();
        if (keys != wanted)
            fail("report nodes are " + keys.join(", ") + ", expected " + wanted.join(", "));
    }

    // "Node/key" paths that must exist (any value), and exact values.
    const QJsonObject raw = doc.object();
    auto lookup = [&raw](const QString& path, bool& found) {
        const int slash = path.indexOf('/');
        const QJsonObject node = raw.value(path.left(slash)).toObject();
        found = slash > 0 && node.contains(path.mid(slash + 1));
        return node.value(path.mid(slash + 1));
    };
    for (const QString& path : stringList(spec.value("keys"), vars)) {
        bool found = false;
        lookup(path, found);
        if (!found)
            fail("the report has no " + path);
    }
    const QJsonObject values = spec.value("values").toObject();
    for (const QString& path : values.keys()) {
        bool found = false;
        const QJsonValue value = lookup(path, found);
        if (!found || value != values.value(path))
            fail(path + " is " + (found ? compact(value) : QString("absent")) + ", expected " +
                 compact(values.value(path)));
    }

    const QString expectedName = spec.value("expected").toString();
    if (expectedName.isEmpty())
        return;
    const QString expectedPath = caseDir + "/" + expectedName;
    if (update) {
        QJsonObject subset;
        for (const QString& n : nodes.isEmpty() ? actual.keys() : nodes)
            subset.insert(n, actual.value(n));
        QFile out(expectedPath);
        out.open(QIODevice::WriteOnly | QIODevice::Truncate);
        out.write(QJsonDocument(subset).toJson(QJsonDocument::Indented));
        std::printf("updated %s\n", expectedPath.toLocal8Bit().constData());
        return;
    }
    QFile expectedFile(expectedPath);
    if (!expectedFile.open(QIODevice::ReadOnly)) {
        fail("cannot read " + expectedPath);
        return;
    }
    QJsonObject expected = QJsonDocument::fromJson(expectedFile.readAll()).object();
    maskReport(expected, masks);
    // Each node of the expected report must match; nodes that joined the
    // diagnosis later are only compared when listed.
    for (const QString& n : expected.keys()) {
        if (actual.value(n) != expected.value(n))
            fail("report node \"" + n + "\" differs.\n--- expected\n" + compact(expected.value(n)) +
                 "--- actual\n" + compact(actual.value(n)));
    }
}

void checkLog(const QJsonObject& spec, const QString& home) {
    const QDir logDir(home + "/.kov/log");
    const QStringList files = logDir.entryList({"kovlog_*.log"}, QDir::Files);
    if (files.isEmpty()) {
        fail("no log file in " + logDir.path());
        return;
    }
    int lines = 0;
    for (const QString& f : files) {
        QFile file(logDir.filePath(f));
        file.open(QIODevice::ReadOnly);
        while (!file.atEnd()) {
            const QByteArray line = file.readLine();
            QJsonParseError error{};
            const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
            if (error.error != QJsonParseError::NoError || !doc.isObject())
                fail("log line is not a JSON object: " + QString::fromUtf8(line));
            ++lines;
        }
    }
    const int minLines = spec.value("min_lines").toInt(0);
    if (lines < minLines)
        fail(QString("log has %1 lines, expected at least %2").arg(lines).arg(minLines));
    for (const QJsonValue& v : spec.value("contains").toArray()) {
        bool found = false;
        for (const QString& f : files) {
            QFile file(logDir.filePath(f));
            file.open(QIODevice::ReadOnly);
            if (file.readAll().contains(v.toString().toUtf8()))
                found = true;
        }
        if (!found)
            fail("log does not contain: " + v.toString());
    }
}

// Files the run leaves in the working directory: each entry of `files` names a
// path relative to it, with "exists" (default true), "equals" (the whole
// content), and "contains" / "not_contains" (texts; "in_order": true asks
// for the "contains" texts one after the other).
void checkFiles(const QJsonObject& files, const QString& cwd, const QMap<QString, QString>& vars) {
    for (const QString& name : files.keys()) {
        const QJsonObject want = files.value(name).toObject();
        const QString path = cwd + "/" + name;
        const bool exists = QFileInfo(path).isFile();
        if (!want.value("exists").toBool(true)) {
            if (exists)
                fail(name + " was written although it should not exist");
            continue;
        }
        if (!exists) {
            fail("no file " + name + " in the working directory");
            continue;
        }
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        const QByteArray bytes = file.readAll();
        if (want.contains("equals")) {
            const QByteArray expected = expand(want.value("equals").toString(), vars).toUtf8();
            if (bytes != expected)
                fail(name + " differs.\n--- expected\n" + visible(expected) + "--- actual\n" +
                     visible(bytes));
        }
        const bool inOrder = want.value("in_order").toBool(false);
        int from = 0;
        for (const QString& text : stringList(want.value("contains"), vars)) {
            const int at = bytes.indexOf(text.toUtf8(), inOrder ? from : 0);
            if (at < 0) {
                fail(name + (inOrder ? " lacks, or holds out of order: " : " lacks: ") +
                     visible(text.toUtf8()));
                continue;
            }
            from = at + text.toUtf8().size();
        }
        for (const QString& text : stringList(want.value("not_contains"), vars))
            if (bytes.contains(text.toUtf8()))
                fail(name + " holds: " + visible(text.toUtf8()));
    }
}

// Makes a folder where the report cannot be created, even for root: a
// directory already stands under the report's name.
void block(const QString& dir, bool readOnly) {
    QDir().mkpath(dir + "/KOV_Diagnostic_Results.json");
    if (readOnly)
        chmod(dir.toLocal8Bit().constData(), 0555);
}

}  // namespace

int main(int argc, char** argv) {
    QString binary, caseDir, sourceDir, buildDir;
    for (int i = 1; i + 1 < argc; i += 2) {
        const QString opt = argv[i], value = QString::fromLocal8Bit(argv[i + 1]);
        if (opt == "--binary")
            binary = value;
        if (opt == "--case")
            caseDir = value;
        if (opt == "--source-dir")
            sourceDir = value;
        if (opt == "--build-dir")
            buildDir = value;
    }
    if (binary.isEmpty() || caseDir.isEmpty()) {
        std::fprintf(stderr,
                     "usage: kov_e2e --binary PATH --case DIR [--source-dir DIR] [--build-dir DIR]\n");
        return 2;
    }
    QFile caseFile(caseDir + "/case.json");
    if (!caseFile.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s/case.json\n", caseDir.toLocal8Bit().constData());
        return 2;
    }
    QJsonParseError parseError{};
    const QJsonObject spec = QJsonDocument::fromJson(caseFile.readAll(), &parseError).object();
    if (parseError.error != QJsonParseError::NoError) {
        std::fprintf(stderr, "case.json: %s\n", parseError.errorString().toLocal8Bit().constData());
        return 2;
    }
    const bool update = qEnvironmentVariableIsSet("KOV_E2E_UPDATE");

    QTemporaryDir work(QDir::tempPath() + "/kov_e2e_XXXXXX");
    const QString cwd = work.path() + "/cwd", home = work.path() + "/home", root = work.path() + "/root";
    QDir().mkpath(cwd);
    QDir().mkpath(home);
    QMap<QString, QString> vars{{"CASE", caseDir},      {"WORK", work.path()}, {"CWD", cwd},
                                {"HOME", home},         {"ROOT", root},        {"SOURCE_DIR", sourceDir},
                                {"BUILD_DIR", buildDir}};

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "KOV_SYSROOT", "KOV_SIMULATION",
                             "KOV_SDK_DISABLE_COLOR_LOGGER", "LD_LIBRARY_PATH"})
        env.remove(name);
    env.insert("HOME", home);
    env.insert("XDG_CONFIG_HOME", home + "/.config");
    // The machine's fixed files come from the case's tree, or from an empty
    // root: a case never reads or creates files of the real machine unless
    // it unsets KOV_SYSROOT.
    QDir().mkpath(root);
    if (spec.contains("sysroot")) {
        const QString from = QDir(caseDir).absoluteFilePath(spec.value("sysroot").toString());
        if (!copyTree(from, root))
            fail("cannot copy the machine tree " + from);
    }
    env.insert("KOV_SYSROOT", root);
    QStringList pathDirs;
    for (const QString& p : stringList(spec.value("path"), vars))
        pathDirs << QDir(caseDir).absoluteFilePath(p);
    if (!pathDirs.isEmpty())
        env.insert("PATH", pathDirs.join(':') + ":" + env.value("PATH"));
    for (const QString& name : stringList(spec.value("unset_env"), vars))
        env.remove(name);
    const QJsonObject extraEnv = spec.value("env").toObject();
    for (const QString& key : extraEnv.keys())
        env.insert(key, expand(extraEnv.value(key).toString(), vars));

    // Files that stand in the working directory before the run.
    if (spec.contains("cwd_files")) {
        const QString from = QDir(caseDir).absoluteFilePath(spec.value("cwd_files").toString());
        if (!copyTree(from, cwd))
            fail("cannot copy the working directory's files " + from);
    }
    if (spec.value("cwd").toString() == "blocked")
        block(cwd, true);
    if (spec.value("home").toString() == "blocked")
        block(home, false);

    QStringList args = {spec.value("argv0").toString("kov_diagnostic")};
    args += stringList(spec.value("args"), vars);
    const QByteArray input = expand(spec.value("stdin").toString(), vars).toUtf8();
    const Result r =
        runProgram(binary, args, env.toStringList(), cwd, input, spec.value("timeout_s").toInt(300));
    chmod(cwd.toLocal8Bit().constData(), 0755);

    if (r.timedOut)
        fail("the program did not end in time");
    const int wantedExit = spec.value("exit_code").toInt(0);
    if (!spec.value("exit_code").isNull() && r.exitCode != wantedExit)
        fail(QString("exit code %1, expected %2").arg(r.exitCode).arg(wantedExit));

    if (spec.contains("stdout_lines")) {
        QStringList wanted = stringList(spec.value("stdout_lines"), vars);
        QString expected = wanted.join('\n') + "\n";
        if (QString::fromUtf8(r.out) != expected)
            fail("standard output differs.\n--- expected\n" + visible(expected.toUtf8()) + "--- actual\n" +
                 visible(r.out));
    }
    for (const QString& text : stringList(spec.value("stdout_contains"), vars))
        if (!r.out.contains(text.toUtf8()))
            fail("standard output lacks: " + visible(text.toUtf8()));
    for (const QString& text : stringList(spec.value("stdout_not_contains"), vars))
        if (r.out.contains(text.toUtf8()))
            fail("standard output holds: " + visible(text.toUtf8()));
    for (const QString& text : stringList(spec.value("stderr_contains"), vars))
        if (!r.err.contains(text.toUtf8()))
            fail("standard error lacks: " + visible(text.toUtf8()));
    for (const QString& text : stringList(spec.value("stderr_not_contains"), vars))
        if (r.err.contains(text.toUtf8()))
            fail("standard error holds: " + visible(text.toUtf8()));
    if (spec.value("stderr_empty").toBool(false) && !r.err.isEmpty())
        fail("standard error is not empty");

    if (spec.contains("report"))
        checkReport(spec.value("report").toObject(), caseDir, cwd, home, vars, update);
    if (spec.contains("log"))
        checkLog(spec.value("log").toObject(), home);
    if (spec.contains("files"))
        checkFiles(spec.value("files").toObject(), cwd, vars);

    if (gFailures > 0) {
        work.setAutoRemove(false);
        std::fprintf(
            stderr,
            "\n%s: %d check(s) failed; files kept in %s\n--- standard output\n%s\n--- standard error\n%s\n",
            caseDir.toLocal8Bit().constData(), gFailures, work.path().toLocal8Bit().constData(),
            visible(r.out).toLocal8Bit().constData(), visible(r.err).toLocal8Bit().constData());
        return 1;
    }
    std::printf("%s: passed\n", caseDir.toLocal8Bit().constData());
    return 0;
}
