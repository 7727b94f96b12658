# Restorations from PowerShell: zan_restore with pipelines, errors and progress. For Windows
# PowerShell 5.1 and PowerShell 7, on Windows and on Linux.

Set-StrictMode -Version Latest

$script:tool = $script:toolPath = $null
$script:isOnWindows = [IO.Path]::DirectorySeparatorChar -eq '\'
$script:generalFailure = [Convert]::ToInt32('80004005', 16)
$script:alreadyRunning = [Convert]::ToInt32('800700aa', 16)
$script:alreadyThere = [Convert]::ToInt32('80070050', 16)
# Out of files, memory, threads or other resources: it accepts more when other files are whole.
$script:atItsLimit = '80070004', '80070008', '8007000e', '800705aa' | ForEach-Object { [Convert]::ToInt32($_, 16) }

# The tool: in the module's folder or the one above, then on PATH.
function Find-Tool {
    # Looked up once: Get-Command takes ten times as long as the tool itself.
    if ($script:tool -and $script:toolPath -ceq $env:PATH) { return $script:tool }
    $name = if ($script:isOnWindows) { 'zan_restore.exe' } else { 'zan_restore' }
    $found = @($PSScriptRoot, (Split-Path $PSScriptRoot) | ForEach-Object { Join-Path $_ $name } |
            Where-Object { Test-Path -LiteralPath $_ -PathType Leaf })
    if (-not $found) { $found = @(Get-Command -Name $name -CommandType Application -ErrorAction Ignore | ForEach-Object Path) }
    if (-not $found) {
        throw [IO.FileNotFoundException]::new(
            "$name was found neither beside the module ($PSScriptRoot) nor on PATH.", $name)
    }
    $script:toolPath = $env:PATH
    $script:tool = $found[0]
    $script:tool
}

# Joins words into a command line that every Windows program splits the same way: escapes a quote,
# the backslashes before it, and backslashes at the end of a quoted word.
function Join-Words([string[]] $Words) {
    $quoted = foreach ($word in $Words) {
        if ($word -ne '' -and $word -notmatch '[\s"]') { $word; continue }
        '"' + ($word -replace '(\\*)"', '$1$1\"' -replace '(\\+)\z', '$1$1') + '"'
    }
    $quoted -join ' '
}

# Runs the tool. Returns its status, its output (read as UTF-8, whatever the console's encoding) and,
# if it failed, the HRESULT in the output.
function Invoke-Tool([string[]] $Words) {
    $start = [Diagnostics.ProcessStartInfo]::new((Find-Tool), (Join-Words $Words))
    $start.UseShellExecute = $false
    $start.CreateNoWindow = $true
    $start.RedirectStandardOutput = $true
    $start.RedirectStandardError = $true
    $start.StandardOutputEncoding = $start.StandardErrorEncoding = [Text.UTF8Encoding]::new($false)
    $process = [Diagnostics.Process]::Start($start)
    try {
        $output = $process.StandardOutput.ReadToEndAsync()
        $errors = $process.StandardError.ReadToEndAsync()
        while (-not $process.WaitForExit(200)) { } # in steps, so that Ctrl-C works
        $text = ($output.Result + $errors.Result).Trim()
        $hresult = 0
        if ($process.ExitCode -ne 0) {
            $hresult = $script:generalFailure
            # The diagnosis' fourth line begins with the HRESULT, then names the API.
            if ($text -match '(?m)^0x([0-9a-f]{1,8})\[') {
                $hresult = [Convert]::ToInt32($Matches[1], 16)
            } elseif ($text -match '^(?:create|writing) .* failed: ([0-9a-f]{1,4})$') {
                $hresult = [Convert]::ToInt32('8007' + $Matches[1].PadLeft(4, '0'), 16)
            }
        }
        [pscustomobject]@{ Status = $process.ExitCode; Text = $text; HResult = $hresult }
    } finally {
        if (-not $process.WaitForExit(2000)) { $process.Kill() } # a set-up gets time to end
        $process.Dispose()
    }
}

# Returns a file's full path; a relative one starts at the current location or is on a PSDrive.
# Wildcards are ordinary characters.
function Resolve-File([string] $Path, $Cmdlet) {
    if ($Path -match '[. ]$' -and $Path -notmatch '(^|[\\/])\.{1,2}$') {
        throw [ArgumentException]::new(
            "'$Path' ends in a dot or a space, which Windows trims: write the name without it.")
    }
    $provider = $drive = $null
    $file = $Cmdlet.SessionState.Path.GetUnresolvedProviderPathFromPSPath($Path, [ref] $provider, [ref] $drive)
    if ($provider.Name -ne 'FileSystem') { throw [ArgumentException]::new("'$Path' is not a path of the file system.") }
    if ($script:isOnWindows -and ($file -replace '^\\\\\?\\', '').LastIndexOf([char] ':') -gt 1) {
        throw [ArgumentException]::new("'$Path' has a colon in its name, which begins a named stream on Windows.")
    }
    $file
}

# Writes one non-terminating error for a file: the line of the tool's output that says what failed,
# and the HRESULT. The entire output is in the exception's data.
function Write-Failure([string] $File, [string] $Text, [int] $HResult, [string] $Id, $Cmdlet) {
    if ($Text -eq '') { $Text = 'zan_restore failed without output. If this was a set-up: is the backing path empty or too long?' }
    $what = @($Text -split '\r?\n' -match '^(create|writing|Cannot|no filter|message not)') + $Text
    $what = $what[0] -replace '(?<=^message not sent to port).*'
    $failure = [Runtime.InteropServices.ExternalException]::new(('{0}: {1} (0x{2:x8})' -f $File, $what, $HResult), $HResult)
    $failure.Data['Output'] = $Text
    $Cmdlet.WriteError([Management.Automation.ErrorRecord]::new($failure, $Id, 'NotSpecified', $File))
}

# The same for a failure before the tool was started.
function Write-Refusal($Reason, [string] $File, $Cmdlet) {
    $Cmdlet.WriteError([Management.Automation.ErrorRecord]::new(
            $Reason.Exception, 'ZanRestore.Refused', 'InvalidArgument', $File))
}

# Runs the tool on one file, with the words that `Words` makes of its full path, unless -WhatIf or
# the user forbids it. Returns the answer with the file's path; null if the tool did not run.
function Invoke-ToolOn([string] $Path, [string] $Deed, [scriptblock] $Words, $Cmdlet) {
    try {
        $file = Resolve-File $Path $Cmdlet
        if ($Deed -and -not $Cmdlet.ShouldProcess($file, $Deed)) { return }
        Invoke-Tool (& $Words $file) | Add-Member File $file -PassThru
    } catch {
        Write-Refusal $_ $Path $Cmdlet
    }
}

# Whether the file has a tag that names this backing file. The contract gives the tag's layout.
function Test-Tag([string] $File, [string] $BackingPath) {
    $stream = "${File}:restore_filter_tag"
    if ($script:isOnWindows) {
        $asBytes = @{ Encoding = 'Byte' }
        if ($PSVersionTable.PSVersion.Major -ge 6) { $asBytes = @{ AsByteStream = $true } }
        $tag = Get-Content -LiteralPath $File -Stream restore_filter_tag -Raw -ErrorAction Ignore @asBytes
    } else {
        $tag = if ([IO.File]::Exists($stream)) { , [IO.File]::ReadAllBytes($stream) }
    }
    $tag = [byte[]] @($tag)
    if ($tag.Length -ne 16376) { return $false }
    $path = if ($BackingPath.IndexOf([char] ':') -eq 1) { '\??\' + $BackingPath }
    elseif ($BackingPath.StartsWith('\\', 'Ordinal')) { '\Device\Mup' + $BackingPath.Substring(1) }
    else { $BackingPath }
    $length = [BitConverter]::ToUInt16($tag, 26)
    # Not -ceq, which treats some different characters as equal.
    $length -le 16336 -and [string]::Equals([Text.Encoding]::Unicode.GetString($tag, 36, $length), $path, 'Ordinal')
}

# Queries the progress of a file, given by its full path. Returns null after an error.
function Read-Progress([string] $File, $Cmdlet) {
    $answer = Invoke-Tool '--progress', $File
    if ($answer.Status -ne 0 -or $answer.Text -notmatch '^progress: 0x([0-9a-f]+) of 0x([0-9a-f]+)$') {
        Write-Failure $File $answer.Text $answer.HResult 'ZanRestore.Progress' $Cmdlet
        return
    }
    $done = [Convert]::ToUInt64($Matches[1], 16)
    $total = [Convert]::ToUInt64($Matches[2], 16)
    $isWhole = $done -eq $total -and $total -gt 0
    $percent = 0
    if ($isWhole) { $percent = 100 }
    elseif ($total -gt 0) { $percent = [int] [Math]::Min(99, [Math]::Floor(100.0 * $done / $total)) }
    [pscustomobject]@{
        PSTypeName = 'ZanRestore.Progress'
        Path = $File; Progress = $done; Total = $total; PercentComplete = $percent; IsWhole = $isWhole
    }
}

# Outputs a file whose restoration has begun, and returns true. Else writes an error, returns false.
function Write-Start([string] $File, $Answer, $Cmdlet) {
    $isRunning = $Answer.Status -ne 0 -and $Answer.HResult -eq $script:alreadyRunning
    if ($isRunning) { Write-Verbose "${File}: is already being restored" }
    if ($Answer.Status -ne 0 -and -not $isRunning) {
        Write-Failure $File $Answer.Text $Answer.HResult 'ZanRestore.Start' $Cmdlet
        return $false
    }
    $Cmdlet.WriteObject((Get-Item -LiteralPath $File -Force))
    $true
}

# Whether a file answers and is not whole yet.
function Test-Unfinished([string] $File) {
    $answer = Invoke-Tool '--progress', $File
    $answer.Status -eq 0 -and $answer.Text -notmatch '^progress: 0x(?!0 )([0-9a-f]+) of 0x\1$'
}

function New-ZanRestore {
    <#
    .SYNOPSIS
    Sets up a restore: creates a local file, new and empty, with a tag that names its backing file.
    .DESCRIPTION
    An existing file is never touched. If it already has a tag for the same backing file, it is
    returned, so you can run a list again. Any other existing file is an error.

    An error of the tool says which file failed, what failed, and the HRESULT (0x80004005 if the tool
    gave no code). To see the tool's entire output: $Error[0].Exception.Data['Output']. The HRESULT
    alone is in $Error[0].Exception.HResult.

    To undo a set-up, run Stop-ZanRestore and Remove-Item. On Linux, if the file system has no named
    streams, remove FILE:restore_filter_tag and FILE:restore_filter_progress too.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .PARAMETER BackingPath
    The backing file: c:\dir\foo.txt or \\server\share\foo.txt. The tag stores it in NT form.
    Nothing checks that the file exists.
    .PARAMETER ConcurrentReads
    How many concurrent reads you want. The tag records this number, and that the entire file is to
    be restored. With 0, the default, the tag records neither. A list can have a column ConcurrentReads.
    The set-up starts nothing: Start-ZanRestore has its own ConcurrentReads.
    .OUTPUTS
    System.IO.FileInfo: the file.
    .EXAMPLE
    New-ZanRestore d:\vm\disk.vhd \\srv\share\disk.vhd -ConcurrentReads 4
    .EXAMPLE
    Import-Csv list.csv | New-ZanRestore | Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore

    Sets up, starts and waits for all files of a list. Its columns are File (or Path, or FullName),
    Backing (or BackingPath) and, if you like, ConcurrentReads.
    #>
    [CmdletBinding(SupportsShouldProcess)]
    [OutputType([IO.FileInfo])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path,
        [Parameter(Mandatory, Position = 1, ValueFromPipelineByPropertyName)]
        [Alias('Backing')] [AllowEmptyString()] [string] $BackingPath,
        [Parameter(ValueFromPipelineByPropertyName)] [int] $ConcurrentReads
    )
    process {
        # 0 also when the row lacks the column
        $strategy = if ($ConcurrentReads -ne 0) { 'simple', "$ConcurrentReads" } else { @() }
        $answer = Invoke-ToolOn $Path "set up to be restored from $BackingPath" {
            param($file) @($file, $BackingPath) + $strategy
        } $PSCmdlet
        if (-not $answer) { return }
        $isThere = $answer.Status -ne 0 -and $answer.HResult -eq $script:alreadyThere -and (Test-Tag $answer.File $BackingPath)
        if ($isThere) { Write-Verbose "$($answer.File): already has its tag" }
        if ($answer.Status -eq 0 -or $isThere) {
            Get-Item -LiteralPath $answer.File -Force
        } else {
            Write-Failure $answer.File $answer.Text $answer.HResult 'ZanRestore.SetUp' $PSCmdlet
        }
    }
}

function Start-ZanRestore {
    <#
    .SYNOPSIS
    Starts the aggressive restoration of a file that has been set up.
    .DESCRIPTION
    Like all functions that ask the filter, this needs an elevated console. It returns when the
    restoration has begun. Wait-ZanRestore waits for its end. A file that is already being restored
    is returned too. If the filter has reached its limit of open files, memory or other resources,
    the function tries again until the filter takes the file. If all other files of this call are
    whole and the filter still refuses, the function writes an error.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .PARAMETER ConcurrentReads
    The number of concurrent reads of the backing file. 4 is a good first value.
    .OUTPUTS
    System.IO.FileInfo: the file.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore
    #>
    [CmdletBinding(SupportsShouldProcess)]
    [OutputType([IO.FileInfo])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path,
        [Parameter(Mandatory, Position = 1, ValueFromPipelineByPropertyName)] [int] $ConcurrentReads
    )
    begin {
        $started = @()
        $refused = [Collections.Queue]::new()
    }
    process {
        $words = { param($file) '--startAggressiveRestore', "$ConcurrentReads", $file }
        $answer = Invoke-ToolOn $Path "start aggressive restoration with $ConcurrentReads reads" $words $PSCmdlet
        if (-not $answer) { return }
        if ($answer.HResult -in $script:atItsLimit) {
            $refused.Enqueue(@{ File = $answer.File; Reads = $ConcurrentReads })
        } elseif (Write-Start $answer.File $answer $PSCmdlet) {
            $started += $answer.File
        }
    }
    end {
        while ($refused.Count) {
            $started = @($started | Where-Object { Test-Unfinished $_ })
            while ($refused.Count) {
                $next = $refused.Peek()
                $answer = Invoke-Tool '--startAggressiveRestore', "$($next.Reads)", $next.File
                if ($answer.HResult -in $script:atItsLimit -and $started) { break }
                if (Write-Start $next.File $answer $PSCmdlet) { $started += $next.File }
                [void] $refused.Dequeue()
            }
            if ($refused.Count) { Start-Sleep -Milliseconds 200 }
        }
    }
}

function Stop-ZanRestore {
    <#
    .SYNOPSIS
    Stops the aggressive restoration of a file.
    .DESCRIPTION
    To continue the restoration, use Start-ZanRestore.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .EXAMPLE
    Stop-ZanRestore d:\vm\disk.vhd
    #>
    [CmdletBinding(SupportsShouldProcess)]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path
    )
    process {
        $words = { param($file) '--stopAggressiveRestore', $file }
        $answer = Invoke-ToolOn $Path 'stop aggressive restoration' $words $PSCmdlet
        if ($answer -and $answer.Status -ne 0) {
            Write-Failure $answer.File $answer.Text $answer.HResult 'ZanRestore.Stop' $PSCmdlet
        }
    }
}

function Test-ZanRestore {
    <#
    .SYNOPSIS
    Tests whether the restore filter serves the volume of a file.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .OUTPUTS
    System.Boolean. If it is false, use -Verbose: the tool's output says why.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Where-Object { -not (Test-ZanRestore $_ -Verbose) }
    #>
    [CmdletBinding()]
    [OutputType([bool])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path
    )
    process {
        $answer = Invoke-ToolOn $Path '' { param($file) '--ping', $file } $PSCmdlet
        if (-not $answer) { return }
        Write-Verbose $answer.Text
        $answer.Status -eq 0
    }
}

function Get-ZanRestoreProgress {
    <#
    .SYNOPSIS
    Gets the progress of the restoration of a file.
    .DESCRIPTION
    Progress and Total are in the filter's own unit. When they are equal and not 0, the restoration
    is finished and IsWhole is true.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .OUTPUTS
    An object with Path, Progress, Total, PercentComplete and IsWhole.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Get-ZanRestoreProgress | Where-Object { -not $_.IsWhole }
    #>
    [CmdletBinding()]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path
    )
    process {
        try {
            Read-Progress (Resolve-File $Path $PSCmdlet) $PSCmdlet
        } catch {
            Write-Refusal $_ $Path $PSCmdlet
        }
    }
}

function Wait-ZanRestore {
    <#
    .SYNOPSIS
    Waits until the restorations of files are finished, and shows their progress.
    .DESCRIPTION
    One progress bar shows all files, another the slowest file. If a file makes no progress for
    longer than StallTimeout, an error is written and the file is no longer waited for. Its
    restoration is not stopped. StallTimeout does not cover a filter that does not
    answer at all: then the function waits forever.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .PARAMETER StallTimeout
    How many seconds a file may make no progress. The default is 60.
    .OUTPUTS
    The last known progress of each file, in the form of Get-ZanRestoreProgress.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Wait-ZanRestore -StallTimeout 300 | Format-Table
    #>
    [CmdletBinding()]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path,
        [ValidateRange(1, 2147483)] [int] $StallTimeout = 60
    )
    begin {
        $comparer = if ($script:isOnWindows) { [StringComparer]::OrdinalIgnoreCase } else { [StringComparer]::Ordinal }
        $last = [Collections.Specialized.OrderedDictionary]::new($comparer) # of each file; null if unknown
        $since = [Collections.Hashtable]::new($comparer) # when it last changed
        $clock = [Diagnostics.Stopwatch]::StartNew()
    }
    process {
        try {
            $file = Resolve-File $Path $PSCmdlet
            $last[$file] = $null
            $since[$file] = $clock.Elapsed
        } catch {
            Write-Refusal $_ $Path $PSCmdlet
        }
    }
    end {
        $waiting = @($last.Keys)
        $whole = 0
        try {
            while ($waiting) {
                $waiting = @(foreach ($file in $waiting) {
                        try {
                            $now = Read-Progress $file $PSCmdlet
                        } catch {
                            Write-Refusal $_ $file $PSCmdlet
                            $now = $null
                        }
                        $before = $last[$file]
                        if ($now) { $last[$file] = $now }
                        if (-not $now -or $now.IsWhole) { # no more to wait for
                            if ($now) { $whole++ }
                            if ($last[$file]) { $PSCmdlet.WriteObject($last[$file]) }
                            continue
                        }
                        if (-not $before -or $before.Progress -ne $now.Progress -or $before.Total -ne $now.Total) {
                            $since[$file] = $clock.Elapsed
                        } elseif (($clock.Elapsed - $since[$file]).TotalSeconds -gt $StallTimeout) {
                            $text = "has made no progress for $StallTimeout s; it stands at $($now.Progress) of $($now.Total)"
                            Write-Failure $file $text $script:generalFailure 'ZanRestore.Stalled' $PSCmdlet
                            $PSCmdlet.WriteObject($now)
                            continue
                        }
                        $file
                    })
                if (-not $waiting) { break }
                $slowest = $waiting | ForEach-Object { $last[$_] } | Sort-Object PercentComplete | Select-Object -First 1
                $percent = ($last.Values | Where-Object { $_ } | Measure-Object PercentComplete -Sum).Sum / $last.Count
                Write-Progress -Id 1 -Activity 'Restoring' -PercentComplete ([Math]::Min(100, $percent)) `
                    -Status "$whole of $($last.Count) files finished"
                Write-Progress -Id 2 -ParentId 1 -Activity $slowest.Path -PercentComplete $slowest.PercentComplete `
                    -Status "$($slowest.PercentComplete) %, the slowest"
                Start-Sleep -Milliseconds 200
            }
        } finally {
            Write-Progress -Id 2 -ParentId 1 -Activity 'Restoring' -Completed
            Write-Progress -Id 1 -Activity 'Restoring' -Completed
        }
    }
}

Register-ArgumentCompleter -Native -CommandName 'zan_restore', 'zan_restore.exe' -ScriptBlock {
    param($word)
    '--ping', '--startAggressiveRestore', '--stopAggressiveRestore', '--progress' |
        Where-Object { $_.StartsWith("$word", 'Ordinal') }
}
