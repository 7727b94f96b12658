# Tags many files, starts their restoration and waits for it:
#
#   restore-many.ps1 -Reads 4 -List list.csv
#
# The list is a CSV file with the columns File and Backing. Exits with 0 when every
# file is whole, 1 when one is not, after all have been tried. A file whose
# progress stands still for a minute has been given up by the filter. Needs
# zan_restore.exe in the path, and Windows PowerShell 5.1 or later.
param(
    [Parameter(Mandatory)] [int] $Reads,
    [Parameter(Mandatory)] [string] $List
)
$failures = 0
function Write-Failure([string] $File, [string] $Text) {
    [Console]::Error.WriteLine("${File}: $Text")
    $script:failures++
}
# The tool writes UTF-8 to what is not a console.
[Console]::OutputEncoding = [Text.UTF8Encoding]::new()

$shown = @{} # the last progress of a file
$since = @{} # and when it was new
$waiting = [Collections.Generic.List[string]]::new()
foreach ($row in Import-Csv -Path $List) {
    $output = zan_restore.exe $row.File $row.Backing simple $Reads
    if ($LASTEXITCODE -ne 0) {
        Write-Failure $row.File "not set up: $output"
        continue
    }
    $output = zan_restore.exe --startAggressiveRestore $Reads $row.File
    if ($LASTEXITCODE -ne 0) {
        Write-Failure $row.File "not started: $output"
        continue
    }
    $waiting.Add($row.File)
}

while ($waiting.Count -gt 0) {
    foreach ($file in $waiting.ToArray()) {
        $output = zan_restore.exe --progress $file
        if ($LASTEXITCODE -ne 0) {
            Write-Failure $file "$output"
            [void] $waiting.Remove($file)
        } elseif ("$output" -match '^progress: (0x[0-9a-f]+) of (0x[0-9a-f]+)$' -and
                  $Matches[1] -eq $Matches[2]) {
            Write-Output "${file}: whole"
            [void] $waiting.Remove($file)
        } elseif ("$output" -ne $shown[$file]) {
            $shown[$file] = "$output"
            $since[$file] = Get-Date
        } elseif ((Get-Date) - $since[$file] -gt [TimeSpan]::FromMinutes(1)) {
            Write-Failure $file "stands still: $output"
            [void] $waiting.Remove($file)
        }
    }
    if ($waiting.Count -gt 0) { Start-Sleep -Milliseconds 200 }
}
exit [int]($failures -gt 0)
