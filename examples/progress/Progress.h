#ifndef VENDORS_PROGRESS_H
#define VENDORS_PROGRESS_H

// A bar on standard error that shows how far a job has come, and that leaves nothing behind. There
// is none where standard error is no terminal.
class Progress {
public:
    explicit Progress(bool isWanted);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Wipes the bar.
    ~Progress();

    // Draws the bar, when it has changed; a negative number stands for an unknown one.
    void show(int percent);

private:
    const bool _isShown;
    int _percent = -1;
};

#endif
